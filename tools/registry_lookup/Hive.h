// SPDX-License-Identifier: Apache-2.0
//
// A value of a registry hive, found by hivex.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::registry {

struct RegistryValue {
  uint32_t type;  ///< REG_SZ and so on; any number can stand in a hive
  std::string data;
};

/// Looks a value up in a hive, which is opened for reading only.
/// @param key    names of keys below the root, with "/" between them; empty for the root
/// @param value  the value's name; empty for the key's default value
/// @return nothing when the key or the value is not there.
/// @throws Failure  when the hive is too damaged to tell. What does not lie on the way is not looked at.
std::optional<RegistryValue> findValue(const std::string& hive, const std::string& key, const std::string& value);

}  // namespace vorlix::registry
