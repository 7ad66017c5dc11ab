// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace vorlix::tool {
namespace {

using Library = nlohmann::ordered_json;

Library libraryValue(const Json& json);

struct Converter {
  Library operator()(std::monostate) const { return {}; }
  Library operator()(const Json::Elements& elements) const {
    Library array = Library::array();
    for (const Json& element : elements) array.push_back(libraryValue(element));
    return array;
  }
  Library operator()(const Json::Members& members) const {
    Library object = Library::object();
    for (const auto& [name, value] : members) object[name] = libraryValue(value);
    return object;
  }
  template <typename Plain>
  Library operator()(const Plain& value) const {
    return value;
  }
};

Library libraryValue(const Json& json) {
  return std::visit(Converter(), json.value());
}

}  // namespace

void Json::print() const {
  constexpr int kIndent = 2;
  std::puts(libraryValue(*this).dump(kIndent, ' ', false, Library::error_handler_t::replace).c_str());
}

void Json::printLine() const {
  constexpr int kNoIndent = -1;
  std::puts(libraryValue(*this).dump(kNoIndent, ' ', false, Library::error_handler_t::replace).c_str());
}

}  // namespace vorlix::tool
