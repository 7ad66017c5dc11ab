// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include "platform/linux/modules/ModuleLoader.h"

namespace vorlix {

WimCall* wimCall(std::string& reason) {
  static const LoadedEntry module = loadModule("applying.so", kWimCallEntry);
  if (module.entry == nullptr) {
    reason = "no WIM can be applied without " + module.name + ": " + module.reason;
    return nullptr;
  }
  return reinterpret_cast<WimCallEntry*>(module.entry)();
}

}  // namespace vorlix
