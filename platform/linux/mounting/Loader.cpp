// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include "Module.h"
#include "platform/linux/MountCall.h"
#include "platform/linux/modules/Modules.h"

namespace vorlix {
namespace {

MountOutcome callModule(const PlainMountCall& call) {
  static auto* const entry =
      reinterpret_cast<MountCallEntry*>(entryOfModule("mounting.so", kMountCallEntry, "nothing can be mounted"));
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
