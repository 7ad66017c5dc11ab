// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/MountCall.h"

#include <libmount/libmount.h>
#include <linux/close_range.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <memory>
#include <system_error>

namespace vorlix {
namespace {

struct ContextDeleter {
  void operator()(libmnt_context* context) const { mnt_free_context(context); }
};
using Context = std::unique_ptr<libmnt_context, ContextDeleter>;

int errorOfLibrary(int code) {
  switch (code) {
    case MNT_ERR_NOFSTYPE:
    case MNT_ERR_AMBIFS:
      return ENODEV;
    case MNT_ERR_LOOPOVERLAP:
    case MNT_ERR_LOCK:
      return EBUSY;
    case MNT_ERR_MOUNTOPT:
      return EINVAL;
    case MNT_ERR_LOOPDEV:
      return errno != 0 ? errno : ENXIO;
    default:
      return code;
  }
}

MountOutcome outcomeOf(libmnt_context* context, int result) {
  MountOutcome outcome;
  if (result == 0) return outcome;
  const int reason = errno;
  char text[1024] = "";
  mnt_context_get_excode(context, result, text, sizeof text);
  outcome.text = text;
  if (mnt_context_helper_executed(context) == 1) {
    outcome.byHelper = true;
    outcome.error = mnt_context_get_helper_status(context);
  } else if (mnt_context_syscall_called(context) == 1) {
    outcome.error = mnt_context_get_syscall_errno(context);
  } else {
    errno = reason;
    outcome.error = errorOfLibrary(result < 0 ? -result : result);
  }
  return outcome;
}

MountOutcome mountByLibrary(const MountCall& call) {
  const Context context(mnt_new_context());
  if (!context) return {ENOMEM, false, ""};
  mnt_context_set_optsmode(context.get(), MNT_OMODE_NOTAB);
  mnt_context_set_fstype(context.get(), call.driver.c_str());
  mnt_context_set_source(context.get(), call.source.c_str());
  mnt_context_set_target(context.get(), call.folder.c_str());
  mnt_context_set_options(context.get(), call.options.c_str());
  if (call.onlyWritable) mnt_context_enable_rwonly_mount(context.get(), 1);
  errno = 0;
  return outcomeOf(context.get(), mnt_context_mount(context.get()));
}

}  // namespace

// After a failure, versions of libmount from 2.39 on leave the loop device open, and an open loop device stays attached
// to its image. So libmount works in a thread with its own descriptors, and they are closed here. Kernels before 5.9
// cannot do that; there the descriptor stays open.
MountOutcome callMount(const MountCall& call) {
  constexpr unsigned int kFirst = STDERR_FILENO + 1;
  constexpr unsigned int kLast = ~0U;
  const auto mountAndClose = [&call] {
    const bool isSeparate = close_range(kFirst, kLast, CLOSE_RANGE_UNSHARE) == 0;
    MountOutcome outcome = mountByLibrary(call);
    if (isSeparate) close_range(kFirst, kLast, 0);
    return outcome;
  };
  try {
    return std::async(std::launch::async, mountAndClose).get();
  } catch (const std::system_error& error) {  // no further thread
    return {error.code().value(), false, ""};
  }
}

MountOutcome callUnmount(const std::string& folder) {
  const Context context(mnt_new_context());
  if (!context) return {ENOMEM, false, ""};
  mnt_context_set_target(context.get(), folder.c_str());
  errno = 0;
  return outcomeOf(context.get(), mnt_context_umount(context.get()));
}

}  // namespace vorlix
