// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <string>

#include "Sysfs.h"
#include "platform/posix/DescriptorCalls.h"

namespace vorlix {
namespace {

// Device numbers are reused for other disks and change when the machine restarts. Therefore the kernel's count of
// attached disks and the start of the machine are part of the identity.
std::string identityOfDisk(dev_t number) {
  std::string text = "block " + deviceNumberText(number);
  if (const auto attached = readWholeNumber(sysfsLink(number) / "diskseq")) {
    text += " attached as " + std::to_string(*attached);
  }
  if (const auto start = readTrimmed("/proc/sys/kernel/random/boot_id")) text += " since " + *start;
  return text;
}

DeviceIdentity identityOfNode(dev_t number, uint64_t offset) {
  DeviceIdentity identity{identityOfDisk(number), offset};
  const std::optional<std::filesystem::path> folder = sysfsFolder(number);
  if (!folder || !readWholeNumber(*folder / "partition")) return identity;
  const std::optional<uint64_t> start = readWholeNumber(*folder / "start");
  const std::optional<dev_t> disk = readDeviceNumber(folder->parent_path() / "dev");
  if (!start || !disk) return {identity.disk, std::nullopt};
  return {identityOfDisk(*disk), *start * kSysfsSector + offset};
}

}  // namespace

std::optional<DeviceIdentity> identityOf(int descriptor, uint64_t offset) {
  struct statx status = {};
  if (statx(descriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return std::nullopt;
  if (S_ISBLK(status.stx_mode)) return identityOfNode(makedev(status.stx_rdev_major, status.stx_rdev_minor), offset);
  std::string file = "file " + deviceNumberText(makedev(status.stx_dev_major, status.stx_dev_minor)) + " " +
                     std::to_string(status.stx_ino);
  // The time of birth distinguishes a file from a later one with the same inode number.
  if ((status.stx_mask & STATX_BTIME) != 0) {
    file += " " + std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
  }
  return DeviceIdentity{file, offset};
}

}  // namespace vorlix
