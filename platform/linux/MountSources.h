// SPDX-License-Identifier: Apache-2.0
//
// The sources of mounts. The kernel reports the numbers of the block devices that its own drivers mount. A driver in
// user space reads a device or an image file itself, and the kernel reports only the name that the driver chose.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DeviceNames.h"
#include "MountTable.h"
#include "VolumeOrigin.h"
#include "platform/posix/Extent.h"

namespace vorlix {

/// The start of the names that some NTFS drivers give to their mounts, as in ntfs://sda2/Name.
inline constexpr std::string_view kNTFSDriver = "ntfs:/";

struct MountSource {
  VolumeOrigin origin;
  dev_t device = 0;                  ///< number of the block device; 0 for an image file
  std::string file;                  ///< path of the image file; empty for a device, and for a file without a name
  std::vector<std::string> holders;  ///< where the driver has it open, as "/proc/<pid>/fd/<number>"
};

/// Finds the sources of mounts. An object examines each device and each driver once, so it should exist only for a
/// short time.
///
/// The file that a driver's process has open is the source, even if it was replaced, renamed or deleted, or if the
/// mount has a relative name. The argument "offset=" says which part of it is mounted. If the process cannot be
/// examined, the name of the mount counts if it is an absolute path, and the whole file counts as mounted.
///
/// A name proves nothing, because any user can choose any name for a mount. It counts only if the driver runs for the
/// super-user, for this user, or for a user who could open the source as the mount does and therefore controls the
/// volume anyway. Access control lists are ignored.
class MountSources {
 public:
  /// Returns the source of a mount. Absent if it is neither a device nor an image file.
  std::optional<MountSource> of(const MountPoint& mount);

 private:
  struct DriverProcess {
    std::string folder;                       ///< "/proc/<pid>"
    std::optional<unsigned long> connection;  ///< minor number of its mount, if the kernel reports it
  };
  struct OpenFile {
    std::string place;  ///< "/proc/<pid>/fd/<number>"
    std::string path;
    bool isDeleted = false;  ///< the file no longer has that path
    struct stat status = {};
  };

  static bool readOpenFile(OpenFile& file);
  std::optional<MountSource> ofDriver(const MountPoint& mount);
  const std::vector<DriverProcess>& driverProcesses();
  std::vector<OpenFile> filesOfDriver(const MountPoint& mount, uint64_t& offset);

  std::map<dev_t, VolumeOrigin> devices_;
  std::map<dev_t, std::optional<MountSource>> drivers_;
  std::optional<std::vector<DriverProcess>> processes_;
};

/// Returns the mounts of a device, in the order of mounting. `window` is that of a slice without its own node. Every
/// mount of the same bytes counts, whatever node, loop device, image file or driver it uses.
std::vector<MountPoint> mountsOf(const DeviceLocation& location, Extent window);

}  // namespace vorlix
