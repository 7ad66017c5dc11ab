// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "MountLines.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMountTable = "/proc/self/mountinfo";

constexpr const char* kFileSystems = "/proc/filesystems";

bool isDriverInUserSpace(const MountLine& line) {
  return line.fileSystem.starts_with("fuse");
}

// A file system without a device may have the name of one.
class Naming {
 public:
  bool mayNameSource(const MountLine& line) {
    return isDriverInUserSpace(line) || (line.source.starts_with('/') && isOnDevices(line.fileSystem));
  }

 private:
  bool isOnDevices(const std::string& fileSystem) {
    if (!known_) known_ = deviceFileSystems(readText(kFileSystems).value_or(""));
    return std::find(known_->begin(), known_->end(), fileSystem) != known_->end();
  }

  std::optional<std::vector<std::string>> known_;
};

// Returns the number of the mounted device. Some of the kernel's file systems have their own number instead; their
// device is the node that they name.
dev_t deviceOf(const MountLine& line, bool mayNameSource) {
  const bool namesDevice = line.source.starts_with("/dev/") && !isDriverInUserSpace(line) && mayNameSource;
  if (major(line.number) != 0 || !namesDevice) return line.number;
  struct stat status = {};
  const bool isDevice = stat(line.source.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
  return isDevice ? status.st_rdev : line.number;
}

// Returns the user of a driver in user space. The kernel's own drivers count as the super-user's.
uid_t userOf(const MountLine& line) {
  const std::string value = mountOption(line.volumeOptions, "user_id").value_or("");
  uid_t user = 0;
  std::from_chars(value.data(), value.data() + value.size(), user);
  return user;
}

// Subvolumes of btrfs count as volumes; the options of a mount name its subvolume.
bool isVolumeRoot(const MountLine& line) {
  return line.root == "/" || (line.fileSystem == "btrfs" && mountOption(line.volumeOptions, "subvol") == line.root);
}

MountPoint mountPointOf(const MountLine& line, Naming& naming) {
  MountPoint mount;
  mount.id = line.id;
  mount.path = line.path;
  mount.fileSystem = line.fileSystem;
  mount.source = line.source;
  mount.number = line.number;
  mount.mayNameSource = naming.mayNameSource(line);
  mount.device = deviceOf(line, mount.mayNameSource);
  mount.isByDriver = isDriverInUserSpace(line);
  mount.user = mount.isByDriver ? userOf(line) : 0;
  mount.isWhole = isVolumeRoot(line);
  mount.isReadOnly = mountOption(line.mountOptions, "ro") || mountOption(line.volumeOptions, "ro");
  return mount;
}

}  // namespace

std::vector<MountPoint> mountTable() {
  std::vector<MountPoint> mounts;
  Naming naming;
  for (const MountLine& line : mountLines(readText(kMountTable).value_or(""))) {
    mounts.push_back(mountPointOf(line, naming));
  }
  return mounts;
}

std::optional<MountPoint> mountAt(const std::string& path) {
  std::error_code error;
  const std::string wanted = fs::canonical(path, error).string();
  if (error) return std::nullopt;
  const std::vector<MountPoint> mounts = mountTable();
  const auto found =
      std::find_if(mounts.rbegin(), mounts.rend(), [&](const MountPoint& mount) { return mount.path == wanted; });
  if (found == mounts.rend()) return std::nullopt;
  return *found;
}

}  // namespace vorlix
