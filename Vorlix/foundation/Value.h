// SPDX-License-Identifier: Apache-2.0
/// @file
/// Plain values and dictionaries of them, as system services return them.
#pragma once

#include <Vorlix/foundation/URL.h>
#include <Vorlix/foundation/UUID.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace vorlix {

class Dictionary;
struct Array;

/// Uninterpreted bytes.
using Data = std::vector<uint8_t>;

/// A boolean, an integer, a floating-point number, UTF-8 text, bytes, an identifier, a URL, or a shared, immutable
/// dictionary or list.
using Value = std::variant<bool, int64_t, double, std::string, Data, UUID, URL, std::shared_ptr<const Dictionary>,
                           std::shared_ptr<const Array>>;

/// A list that owns its values.
struct Array {
  std::vector<Value> values;  ///< in order
};

/// A dictionary that owns its values.
class Dictionary {
 public:
  /// Sets a value and replaces one with the same key.
  void set(std::string key, Value value) { values_.insert_or_assign(std::move(key), std::move(value)); }

  /// Returns whether there is an entry with that key.
  bool contains(const std::string& key) const { return values_.contains(key); }

  /// Returns the value of any type. Absent if there is none.
  std::optional<Value> value(const std::string& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? std::nullopt : std::optional<Value>(found->second);
  }

  /// @{
  /// Return the value if it has that type. Absent if it has another type or there is none.
  std::optional<bool> boolean(const std::string& key) const { return as<bool>(key); }
  std::optional<int64_t> integer(const std::string& key) const { return as<int64_t>(key); }
  std::optional<double> real(const std::string& key) const { return as<double>(key); }
  std::optional<std::string> text(const std::string& key) const { return as<std::string>(key); }
  std::optional<Data> data(const std::string& key) const { return as<Data>(key); }
  std::optional<UUID> uuid(const std::string& key) const { return as<UUID>(key); }
  std::optional<URL> url(const std::string& key) const { return as<URL>(key); }
  /// @}

  /// Returns the dictionary with that key, or null.
  std::shared_ptr<const Dictionary> dictionary(const std::string& key) const {
    return as<std::shared_ptr<const Dictionary>>(key).value_or(nullptr);
  }

  /// Returns the list with that key, or null.
  std::shared_ptr<const Array> array(const std::string& key) const {
    return as<std::shared_ptr<const Array>>(key).value_or(nullptr);
  }

  /// Returns all values in the order of their keys.
  const std::map<std::string, Value>& values() const { return values_; }

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
