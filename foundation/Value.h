// SPDX-License-Identifier: Apache-2.0
/// @file
/// Plain values in dictionaries, as system services hand them out.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace vorlix {

/// A truth value, a whole number or UTF-8 text.
using Value = std::variant<bool, int64_t, std::string>;

/// Values by key, owned by the dictionary.
class Dictionary {
 public:
  /// Puts a value in place of one that may be there.
  void set(std::string key, Value value) { values_.insert_or_assign(std::move(key), std::move(value)); }

  bool contains(const std::string& key) const { return values_.contains(key); }

  /// The value if it is there and a whole number.
  std::optional<int64_t> integer(const std::string& key) const { return as<int64_t>(key); }

  /// The value if it is there and a text.
  std::optional<std::string> text(const std::string& key) const { return as<std::string>(key); }

 private:
  template <typename Type>
  std::optional<Type> as(const std::string& key) const {
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    const Type* value = std::get_if<Type>(&found->second);
    if (value == nullptr) return std::nullopt;
    return *value;
  }

  std::map<std::string, Value> values_;
};

}  // namespace vorlix
