// SPDX-License-Identifier: Apache-2.0
#include <syslog.h>

#include <cerrno>

#include "Module.h"
#include "platform/linux/MountCall.h"
#include "platform/linux/modules/ModuleLoader.h"

namespace vorlix {
namespace {

MountCallEntry* loadMounting() {
  const LoadedEntry module = loadModule("mounting.so", kMountCallEntry);
  if (module.entry != nullptr) return reinterpret_cast<MountCallEntry*>(module.entry);
  syslog(LOG_ERR, "Vorlix: nothing can be mounted without %s: %s", module.name.c_str(), module.reason.c_str());
  return nullptr;
}

MountOutcome callModule(const PlainMountCall& call) {
  static MountCallEntry* const entry = loadMounting();
  if (entry == nullptr)
    return {ELIBACC, false, "the module mounting.so cannot be loaded; the system's log has the reason"};
  PlainMountOutcome outcome;
  entry(call, outcome);
  return {outcome.error, outcome.byHelper, outcome.text};
}

}  // namespace

MountOutcome callMount(const MountCall& call) {
  return callModule(
      {call.driver.c_str(), call.source.c_str(), call.folder.c_str(), call.options.c_str(), call.onlyWritable});
}

MountOutcome callUnmount(const std::string& folder) {
  return callModule({nullptr, nullptr, folder.c_str(), nullptr, false});
}

}  // namespace vorlix
