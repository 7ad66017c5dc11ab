// SPDX-License-Identifier: Apache-2.0
//
// Owners of what hivex returns.
#pragma once

#include <hivex.h>

#include <cstdlib>
#include <memory>

namespace vorlix::registry {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
using HiveText = std::unique_ptr<char, FreeMemory>;
using HivePlaces = std::unique_ptr<size_t, FreeMemory>;  // handles of keys or values; a 0 ends the list

struct CloseHive {
  void operator()(hive_h* hive) const { hivex_close(hive); }
};
using HiveHandle = std::unique_ptr<hive_h, CloseHive>;

}  // namespace vorlix::registry
