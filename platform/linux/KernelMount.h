// SPDX-License-Identifier: Apache-2.0
//
// Mounting with libmount and the system's mount helpers.
#pragma once

#include <optional>
#include <string>

#include "Dissenters.h"
#include "MountTable.h"
#include "platform/posix/Extent.h"

namespace vorlix {

struct KernelMountRequest {
  std::string source;          ///< a block device, or the file or device for a loop device
  std::optional<Extent> loop;  ///< the bytes of `source` for the loop device; absent for no loop device
  std::string kind;            ///< volume kind, see volumeKindOf()
  std::string folder;          ///< an empty folder
  bool readOnly = false;       ///< the medium cannot be written
  bool readWrite = false;      ///< refuse with kDissentNotWritable instead of mounting read-only
  bool noBrowse = false;       ///< hide the volume from the desktop's lists
};

/// Mounts a volume. Set-user-ID programs and device nodes on it have no effect. A refusal leaves the folder as it was.
Refusal mountByKernel(const KernelMountRequest& request);

/// Unmounts the volume at `path`.
Refusal unmountByKernel(const std::string& path);

/// Unmounts that mount and no other. Succeeds if it was unmounted already. Refused with kDissentBusy if another mount
/// covers it, or if it still exists afterwards.
///
/// A driver in user space continues to write after the unmount. This waits until the driver has closed the device or
/// image, for at most 30 seconds. Ordinary users' own mounts of such drivers are unmounted with fusermount3.
Refusal unmountByKernel(const MountPoint& mount);

}  // namespace vorlix
