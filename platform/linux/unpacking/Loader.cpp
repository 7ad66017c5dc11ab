// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include "platform/linux/modules/ModuleLoader.h"

namespace vorlix {

const UnpackerTable* unpackerTable(std::string& reason) {
  static const LoadedEntry module = loadModule("unpacking.so", kUnpackerTableEntry);
  if (module.entry == nullptr) {
    reason = "cannot unpack without " + module.name + ": " + module.reason;
    return nullptr;
  }
  return reinterpret_cast<UnpackerTableEntry*>(module.entry)();
}

}  // namespace vorlix
