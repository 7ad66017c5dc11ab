// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include <type_traits>

extern "C" __attribute__((visibility("default"))) const vorlix::BlockCodingTable* vorlix_block_coding() {
  std::string reason;
  return vorlix::blockCodingTable(reason);
}
static_assert(std::is_same_v<vorlix::BlockCodingEntry, decltype(vorlix_block_coding)>);
