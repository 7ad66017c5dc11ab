// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include <string>

extern "C" __attribute__((visibility("default"))) const vorlix::UnpackerTable* vorlix_unpacker_table() {
  std::string unused;
  return vorlix::unpackerTable(unused);
}
static_assert(std::is_same_v<vorlix::UnpackerTableEntry, decltype(vorlix_unpacker_table)>);
