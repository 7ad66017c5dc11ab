// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include <cerrno>
#include <exception>
#include <type_traits>

#include "platform/linux/MountCall.h"

// No exception crosses from one binary to the other.
extern "C" __attribute__((visibility("default"))) void vorlix_mount_call(const vorlix::PlainMountCall& call,
                                                                         vorlix::PlainMountOutcome& outcome) try {
  outcome = {};
  const vorlix::MountOutcome found =
      call.driver == nullptr
          ? vorlix::callUnmount(call.folder)
          : vorlix::callMount({call.driver, call.source, call.folder, call.options, call.onlyWritable});
  outcome.error = found.error;
  outcome.byHelper = found.byHelper;
  found.text.copy(outcome.text, sizeof outcome.text - 1);
} catch (const std::exception&) {
  outcome = {ENOMEM, false, ""};
}
static_assert(std::is_same_v<vorlix::MountCallEntry, decltype(vorlix_mount_call)>);
