// SPDX-License-Identifier: Apache-2.0
//
// Calls of libmount, which mounts with the system's helpers. Loading it, with the security libraries that it uses,
// takes a quarter of a short command's time, and few commands mount. So the program and the shared library have these
// functions in a module, mounting.so, which is loaded by the first call; the archive for hosts that link statically has
// them inside.
#pragma once

#include <string>

namespace vorlix {

struct MountCall {
  std::string driver;         ///< the file system, by its name for the kernel and for mount helpers
  std::string source;         ///< a block device, or what a loop device is to be made over
  std::string folder;         ///< where to
  std::string options;        ///< as for mount(8), with commas between them
  bool onlyWritable = false;  ///< fail rather than mount read-only
};

/// What a call came to.
struct MountOutcome {
  int error = 0;          ///< an error number, or the exit status of the helper that libmount ran; 0 for success
  bool byHelper = false;  ///< `error` is a helper's exit status
  std::string text;       ///< libmount's words for the failure; may be empty
};

/// Mounts, without an entry in the table that libmount keeps beside the kernel's. Fails with ELIBACC without the
/// module.
MountOutcome callMount(const MountCall& call);

/// Unmounts what is mounted at `folder`. Fails likewise.
MountOutcome callUnmount(const std::string& folder);

}  // namespace vorlix
