// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <memory>
#include <system_error>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMountTable = "/proc/self/mountinfo";

struct TableDeleter {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct IteratorDeleter {
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

std::string orEmpty(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

bool isDriverInUserSpace(libmnt_fs* entry) {
  return orEmpty(mnt_fs_get_fstype(entry)).rfind("fuse", 0) == 0;
}

// A file system without a device may have the name of one. libmount counts drivers in user space as pseudo file
// systems.
bool mayNameSource(libmnt_fs* entry) {
  return isDriverInUserSpace(entry) || (mnt_fs_is_pseudofs(entry) != 1 && mnt_fs_is_netfs(entry) != 1);
}

// Returns the number of the mounted device. Some of the kernel's file systems have their own number instead; their
// device is the node that they name.
dev_t deviceOf(libmnt_fs* entry, const std::string& source) {
  const dev_t number = mnt_fs_get_devno(entry);
  const bool namesDevice = source.rfind("/dev/", 0) == 0 && !isDriverInUserSpace(entry) && mayNameSource(entry);
  if (major(number) != 0 || !namesDevice) return number;
  struct stat status = {};
  const bool isDevice = stat(source.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
  return isDevice ? status.st_rdev : number;
}

// Returns the user of a driver in user space. The kernel's own drivers count as the super-user's.
uid_t userOf(libmnt_fs* entry) {
  char* value = nullptr;
  size_t length = 0;
  const char* const options = mnt_fs_get_fs_options(entry);
  if (options == nullptr || mnt_optstr_get_option(options, "user_id", &value, &length) != 0) return 0;
  uid_t user = 0;
  std::from_chars(value, value + length, user);
  return user;
}

// Subvolumes of btrfs count as volumes; the options of a mount name its subvolume.
bool isVolumeRoot(libmnt_fs* entry) {
  const std::string root = orEmpty(mnt_fs_get_root(entry));
  if (root == "/") return true;
  if (orEmpty(mnt_fs_get_fstype(entry)) != "btrfs") return false;
  char* value = nullptr;
  size_t length = 0;
  return mnt_fs_get_option(entry, "subvol", &value, &length) == 0 && root == std::string(value, length);
}

MountPoint mountPointOf(libmnt_fs* entry) {
  MountPoint mount;
  mount.id = mnt_fs_get_id(entry);
  mount.path = orEmpty(mnt_fs_get_target(entry));
  mount.fileSystem = orEmpty(mnt_fs_get_fstype(entry));
  mount.source = orEmpty(mnt_fs_get_srcpath(entry));
  mount.number = mnt_fs_get_devno(entry);
  mount.device = deviceOf(entry, mount.source);
  mount.isByDriver = isDriverInUserSpace(entry);
  mount.mayNameSource = mayNameSource(entry);
  mount.user = mount.isByDriver ? userOf(entry) : 0;
  mount.isWhole = isVolumeRoot(entry);
  const auto readOnly = [](const char* options) {
    return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
  };
  mount.isReadOnly = readOnly(mnt_fs_get_vfs_options(entry)) || readOnly(mnt_fs_get_fs_options(entry));
  return mount;
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
