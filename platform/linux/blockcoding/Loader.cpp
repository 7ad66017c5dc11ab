// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include "platform/linux/modules/ModuleLoader.h"

namespace vorlix {

const BlockCodingTable* blockCodingTable(std::string& reason) {
  static const LoadedEntry module = loadModule("blockcoding.so", kBlockCodingEntry);
  if (module.entry == nullptr) {
    reason = "no block can be packed without " + module.name + ": " + module.reason;
    return nullptr;
  }
  return reinterpret_cast<BlockCodingEntry*>(module.entry)();
}

}  // namespace vorlix
