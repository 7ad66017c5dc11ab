// SPDX-License-Identifier: Apache-2.0
//
// Checks on a hive's file before its cells are parsed.
#pragma once

#include <cstdint>
#include <string>

namespace vorlix::registry {

/// Returns the size in bytes of a hive's file. Opens the file for reading only.
/// @throws Failure  if the file is not regular, is unreadable, lacks the signature of a hive, is shorter than its
/// header claims, or is larger than a hive can be.
uint64_t checkedHiveSize(const std::string& path);

}  // namespace vorlix::registry
