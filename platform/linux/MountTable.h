// SPDX-License-Identifier: Apache-2.0
//
// What the kernel has mounted, and where.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "../posix/FileHandle.h"
#include "BlockDevices.h"

namespace vorlix {

struct MountPoint {
  std::string path;
  std::string fileSystem;  ///< the kernel's name, such as "vfat" or "fuseblk"
  std::string node;        ///< what was mounted, such as "/dev/loop0"; empty where that is no device
  dev_t device = 0;        ///< number of the device
  bool isWhole = false;    ///< the volume's root, not a folder of it
  bool isReadOnly = false;
};

/// The mounts of a device, the first one first. `window` tells a slice without a node of its own from others; such a
/// slice, or an image file, is mounted where a loop device over those bytes is.
std::vector<MountPoint> mountsOf(const DeviceLocation& location, Extent window);

/// The mount that is seen at `path`, which must be the mount point itself.
std::optional<MountPoint> mountAt(const std::string& path);

/// The bytes that a loop device of `mount` shows, where it was made for that mount alone and goes with it: the backing
/// file or device and the offset in it.
struct LoopBacking {
  std::string path;
  uint64_t offset = 0;
};
std::optional<LoopBacking> loopBackingOf(dev_t device);

}  // namespace vorlix
