// SPDX-License-Identifier: Apache-2.0
/// @file
/// Plain values in dictionaries, as system services hand them out.
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

/// A truth value, a whole number, a number with a fraction, UTF-8 text, bytes, an identifier, a location, or a
/// dictionary or list, which is shared and not changed any more.
using Value = std::variant<bool, int64_t, double, std::string, Data, UUID, URL, std::shared_ptr<const Dictionary>,
                           std::shared_ptr<const Array>>;

/// Values in their order, owned by the list.
struct Array {
  std::vector<Value> values;
};

/// Values by key, owned by the dictionary.
class Dictionary {
 public:
  /// Puts a value in place of one that may be there.
  void set(std::string key, Value value) { values_.insert_or_assign(std::move(key), std::move(value)); }

  bool contains(const std::string& key) const { return values_.contains(key); }

  /// The value if it is there, whatever its type.
  std::optional<Value> value(const std::string& key) const {
    const auto found = values_.find(key);
    return found == values_.end() ? std::nullopt : std::optional<Value>(found->second);
  }

  /// The value if it is there and of that type.
  std::optional<bool> boolean(const std::string& key) const { return as<bool>(key); }
  std::optional<int64_t> integer(const std::string& key) const { return as<int64_t>(key); }
  std::optional<double> real(const std::string& key) const { return as<double>(key); }
  std::optional<std::string> text(const std::string& key) const { return as<std::string>(key); }
  std::optional<Data> data(const std::string& key) const { return as<Data>(key); }
  std::optional<UUID> uuid(const std::string& key) const { return as<UUID>(key); }
  std::optional<URL> url(const std::string& key) const { return as<URL>(key); }

  /// The dictionary under the key, or null.
  std::shared_ptr<const Dictionary> dictionary(const std::string& key) const {
    return as<std::shared_ptr<const Dictionary>>(key).value_or(nullptr);
  }

  /// The list under the key, or null.
  std::shared_ptr<const Array> array(const std::string& key) const {
    return as<std::shared_ptr<const Array>>(key).value_or(nullptr);
  }

  /// All values, in the order of their keys.
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
