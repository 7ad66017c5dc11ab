// SPDX-License-Identifier: Apache-2.0
//
// What the kernel has mounted, and where.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

struct MountPoint {
  int id = 0;  ///< the kernel's number of the mount
  std::string path;
  std::string fileSystem;  ///< the kernel's name, such as "vfat" or "fuseblk"
  std::string source;      ///< what was mounted, in the words of whoever did: "/dev/loop0", "server:/share", "none"
  dev_t number = 0;        ///< the kernel's own of the file system; drivers in user space are known by its minor number
  dev_t device = 0;        ///< number of the block device; with a major number of 0 it is none, or not known to be one
  bool isWhole = false;    ///< the root of the volume or of a subvolume, not a folder of it
  bool isReadOnly = false;
  bool isByDriver = false;     ///< a driver in user space (FUSE), run for `user`
  bool mayNameSource = false;  ///< the source may be a device or an image, which the kernel does not tell by number
  uid_t user = 0;
};

/// All mounts that this process can see, in the kernel's order, which is that of mounting. The table is read anew by
/// every function here.
std::vector<MountPoint> mountTable();

/// The mount that is seen at `path`, which must be the mount point itself.
std::optional<MountPoint> mountAt(const std::string& path);

}  // namespace vorlix
