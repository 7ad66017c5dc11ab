// SPDX-License-Identifier: Apache-2.0
//
// Mounts that the kernel makes, by way of libmount and the mount helpers of the system.
#pragma once

#include <optional>
#include <string>

#include "Dissenters.h"
#include "MountTable.h"
#include "platform/posix/Extent.h"

namespace vorlix {

struct KernelMountRequest {
  std::string source;          ///< a block device, or what a loop device is to be made over
  std::optional<Extent> loop;  ///< the bytes of `source` that the loop device shows; absent for none
  std::string kind;            ///< volume kind, see volumeKindOf()
  std::string folder;          ///< an empty folder
  bool readOnly = false;       ///< the medium cannot be written
  bool readWrite = false;      ///< refuse (kDissentNotWritable) rather than mount it read-only
  bool noBrowse = false;       ///< keep it out of the desktop's lists
};

/// Mounts a volume. Set-user-ID programs and device nodes on it have no effect. Afterwards the folder is as it was
/// where the request is refused.
Refusal mountByKernel(const KernelMountRequest& request);

/// Unmounts what is mounted at `path`.
Refusal unmountByKernel(const std::string& path);

/// Unmounts that mount and no other. One that is gone already, with another one perhaps, is unmounted. Refused with
/// kDissentBusy where another mount covers it; a mount that is still there afterwards is never taken for unmounted.
///
/// A driver in user space goes on writing when its mount has gone: this waits until it has let go of the device or
/// image, for half a minute at most. An ordinary user's own mounts of that sort are unmounted by fusermount3.
Refusal unmountByKernel(const MountPoint& mount);

}  // namespace vorlix
