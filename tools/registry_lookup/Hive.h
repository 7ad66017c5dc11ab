// SPDX-License-Identifier: Apache-2.0
//
// Looks values up in a registry hive, by means of hivex.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::registry {

struct RegistryValue {
  uint32_t type;  ///< REG_SZ and so on; a hive may hold any number
  std::string data;
};

/// Looks a value up in a hive. Opens the hive for reading only.
/// @param hive   the hive's path
/// @param key    names of keys below the root, with "/" between them; empty for the root
/// @param value  the value's name; empty for the key's default value
/// @return the value; absent if the hive lacks the key or the value.
/// @throws Failure  if damage prevents the search. Damage elsewhere in the hive goes unnoticed.
std::optional<RegistryValue> findValue(const std::string& hive, const std::string& key, const std::string& value);

}  // namespace vorlix::registry
