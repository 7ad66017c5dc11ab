// SPDX-License-Identifier: Apache-2.0
//
// What can be said of a hive before its cells are looked at.
#pragma once

#include <cstdint>
#include <string>

namespace vorlix::registry {

/// Size in bytes of a file that may hold a whole hive: regular, readable, with the signature of one, and not shorter
/// than its header says. Nothing is written.
/// @throws Failure  naming the reason.
uint64_t checkedHiveSize(const std::string& path);

}  // namespace vorlix::registry
