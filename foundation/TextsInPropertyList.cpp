// SPDX-License-Identifier: Apache-2.0
#include "TextsInPropertyList.h"

#include <cstdlib>
#include <string_view>

#include "foundation/KeyedArchive/PropertyList.h"

namespace vorlix {
namespace {

constexpr PropertyListLimits kLimits = {1 << 16, 1 << 20, 16};

PropertyListOwner parse(const std::string& content) {
  if (std::string_view(content).starts_with("bplist")) {
    return parsePropertyList({reinterpret_cast<const uint8_t*>(content.data()), content.size()}, kLimits);
  }
  plist_t root = nullptr;
  plist_from_xml(content.data(), static_cast<uint32_t>(content.size()), &root);
  return PropertyListOwner(root);
}

}  // namespace

std::optional<std::vector<std::string>> textsInPropertyList(const std::string& bytes) {
  const PropertyListOwner root = parse(bytes);
  if (!root || plist_get_node_type(root.get()) != PLIST_ARRAY) return std::nullopt;
  std::vector<std::string> texts;
  for (uint32_t index = 0; index < plist_array_get_size(root.get()); ++index) {
    const plist_t item = plist_array_get_item(root.get(), index);
    if (plist_get_node_type(item) != PLIST_STRING) continue;
    char* text = nullptr;
    plist_get_string_val(item, &text);
    if (text != nullptr) texts.emplace_back(text);
    std::free(text);
  }
  return texts;
}

}  // namespace vorlix
