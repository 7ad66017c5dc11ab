// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMountTable = "/proc/self/mountinfo";
constexpr uint64_t kSysfsSector = 512;  // the unit of "start" in sysfs, whatever the device's block size

struct TableDeleter {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct IteratorDeleter {
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

std::string textOf(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

// The number of the device that was mounted. Some file systems show a number of their own instead; these are known by
// the node they name. What has no use for a device may be named after one all the same.
dev_t deviceOf(libmnt_fs* entry, const std::string& source) {
  const dev_t number = mnt_fs_get_devno(entry);
  const bool isDriver = textOf(mnt_fs_get_fstype(entry)).rfind("fuse", 0) == 0;  // a pseudo file system to libmount
  const bool namesDevice = source.rfind("/dev/", 0) == 0 && (isDriver || mnt_fs_is_pseudofs(entry) != 1);
  if (major(number) != 0 || !namesDevice) return number;
  struct stat status = {};
  const bool isDevice = stat(source.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
  return isDevice ? status.st_rdev : number;
}

// A subvolume of btrfs is a volume to its users; its options tell which one it is.
bool isVolumeRoot(libmnt_fs* entry) {
  const std::string root = textOf(mnt_fs_get_root(entry));
  if (root == "/") return true;
  if (textOf(mnt_fs_get_fstype(entry)) != "btrfs") return false;
  char* value = nullptr;
  size_t length = 0;
  return mnt_fs_get_option(entry, "subvol", &value, &length) == 0 && root == std::string(value, length);
}

MountPoint mountPointOf(libmnt_fs* entry) {
  MountPoint mount;
  mount.id = mnt_fs_get_id(entry);
  mount.path = textOf(mnt_fs_get_target(entry));
  mount.fileSystem = textOf(mnt_fs_get_fstype(entry));
  mount.source = textOf(mnt_fs_get_srcpath(entry));
  mount.device = deviceOf(entry, mount.source);
  mount.isWhole = isVolumeRoot(entry);
  const auto readOnly = [](const char* options) {
    return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
  };
  mount.isReadOnly = readOnly(mnt_fs_get_vfs_options(entry)) || readOnly(mnt_fs_get_fs_options(entry));
  return mount;
}

std::optional<uint64_t> readNumber(const fs::path& path) {
  std::ifstream file(path);
  uint64_t number = 0;
  if (!(file >> number)) return std::nullopt;
  return number;
}

std::optional<std::string> readLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) return std::nullopt;
  return line;
}

std::optional<dev_t> deviceNumber(const fs::path& sysfsFolder) {
  unsigned majorNumber = 0;
  unsigned minorNumber = 0;
  char colon = 0;
  std::ifstream file(sysfsFolder / "dev");
  if (!(file >> majorNumber >> colon >> minorNumber)) return std::nullopt;
  return makedev(majorNumber, minorNumber);
}

bool isSameFile(const struct stat& one, const struct stat& other) {
  if (S_ISBLK(one.st_mode) || S_ISBLK(other.st_mode)) {
    return S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode) && one.st_rdev == other.st_rdev;
  }
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The devices of a loop disk, itself and its partitions, that start at `offset` of its backing file.
void addDevicesAt(const fs::path& loop, uint64_t offset, std::vector<dev_t>& devices) {
  const uint64_t base = readNumber(loop / "loop" / "offset").value_or(0);
  if (base == offset) {
    if (const auto device = deviceNumber(loop)) devices.push_back(*device);
  }
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(loop, error)) {
    if (!readNumber(entry.path() / "partition")) continue;
    const auto start = readNumber(entry.path() / "start");
    if (!start || base + *start * kSysfsSector != offset) continue;
    if (const auto device = deviceNumber(entry.path())) devices.push_back(*device);
  }
}

std::vector<dev_t> loopDevicesOver(const std::string& path, uint64_t offset) {
  std::vector<dev_t> devices;
  struct stat wanted = {};
  if (stat(path.c_str(), &wanted) != 0) return devices;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block", error)) {
    const auto backing = readLine(entry.path() / "loop" / "backing_file");
    struct stat status = {};
    if (!backing || stat(backing->c_str(), &status) != 0 || !isSameFile(status, wanted)) continue;
    addDevicesAt(entry.path(), offset, devices);
  }
  return devices;
}

std::vector<dev_t> devicesOf(const DeviceLocation& location, Extent window) {
  if (location.isImage || !location.hasOwnNode()) return loopDevicesOver(location.whole, window.offset);
  struct stat status = {};
  if (stat(location.node.c_str(), &status) != 0) return {};
  return {status.st_rdev};
}

}  // namespace

std::vector<MountPoint> mountTable() {
  std::vector<MountPoint> mounts;
  const std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
  const std::unique_ptr<libmnt_iter, IteratorDeleter> iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (!table || !iterator || mnt_table_parse_file(table.get(), kMountTable) != 0) return mounts;
  libmnt_fs* entry = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &entry) == 0) mounts.push_back(mountPointOf(entry));
  return mounts;
}

std::vector<MountPoint> mountsOf(const DeviceLocation& location, Extent window) {
  const std::vector<dev_t> devices = devicesOf(location, window);
  if (devices.empty()) return {};
  std::vector<MountPoint> mounts = mountTable();
  std::erase_if(mounts, [&](const MountPoint& mount) {
    return std::find(devices.begin(), devices.end(), mount.device) == devices.end();
  });
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

std::optional<LoopBacking> loopBackingOf(dev_t device) {
  const fs::path loop =
      fs::path("/sys/dev/block") / (std::to_string(major(device)) + ":" + std::to_string(minor(device))) / "loop";
  if (readNumber(loop / "autoclear").value_or(0) == 0) return std::nullopt;
  const auto path = readLine(loop / "backing_file");
  if (!path) return std::nullopt;
  return LoopBacking{*path, readNumber(loop / "offset").value_or(0)};
}

}  // namespace vorlix
