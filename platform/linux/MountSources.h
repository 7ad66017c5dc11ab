// SPDX-License-Identifier: Apache-2.0
//
// What is mounted at a place, whatever the driver. The kernel's drivers mount block devices, which it tells by number.
// A driver in user space reads a device or an image file by itself: the kernel tells only the name that it chose.
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
  dev_t device = 0;  ///< number of the block device; 0 for an image file
  std::string file;  ///< path of the image file; empty for a device, and for a file that has no name now
  std::vector<std::string> holders;  ///< where the driver has it open, as "/proc/<pid>/fd/<number>"
};

/// Finds the sources of mounts. Each device and each driver is looked at once in the life of an object, which should be
/// short.
///
/// A driver's process tells more than the name of its mount: the file that it has open is the one that is mounted, also
/// when another file has come into its place, when it was renamed or deleted, and when the name is a relative one; and
/// its argument "offset=" tells which part. Where the process cannot be seen, the name decides, if it is an absolute
/// path, and the whole of the file counts as mounted.
///
/// A name proves nothing: any user may let a driver say that it serves any device. It counts if the driver runs for the
/// super-user or for this user, or for one who could open the source as the mount does: such a user rules over what is
/// on the volume anyway. Access by lists (ACL) is not looked at.
class MountSources {
 public:
  /// Absent where the mount is of no device and of no image file.
  std::optional<MountSource> of(const MountPoint& mount);

 private:
  struct DriverProcess {
    std::string folder;                       ///< "/proc/<pid>"
    std::optional<unsigned long> connection;  ///< minor number of its mount, where the kernel tells it
  };
  struct OpenFile {
    std::string place;  ///< "/proc/<pid>/fd/<number>"
    std::string path;
    bool isDeleted = false;  ///< the file has no longer that path
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

/// The mounts of a device, the first one first. `window` tells a slice without a node of its own from others. Every
/// mount of the same bytes counts: by whatever node, loop device, image file or driver.
std::vector<MountPoint> mountsOf(const DeviceLocation& location, Extent window);

}  // namespace vorlix
