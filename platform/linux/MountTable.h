// SPDX-License-Identifier: Apache-2.0
//
// The kernel's mount table.
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
  std::string source;    ///< what was mounted, as named by the mounting program: "/dev/loop0", "server:/share", "none"
  dev_t number = 0;      ///< the kernel's number of the file system; its minor number identifies user-space drivers
  dev_t device = 0;      ///< number of the block device; the major number is 0 if there is none or it is unknown
  bool isWhole = false;  ///< the root of the volume or of a subvolume, not a folder of it
  bool isReadOnly = false;
  bool isByDriver = false;     ///< a driver in user space (FUSE), run for `user`
  bool mayNameSource = false;  ///< the source may be a device or image whose number the kernel does not report
  uid_t user = 0;
};

/// Returns all mounts that this process can see, in the order of mounting. Every function here reads the table again.
std::vector<MountPoint> mountTable();

/// Returns the visible mount at `path`, which must be the mount point itself.
std::optional<MountPoint> mountAt(const std::string& path);

}  // namespace vorlix
