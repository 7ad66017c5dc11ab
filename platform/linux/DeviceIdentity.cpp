// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <string>

#include "SystemFiles.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kSysfsSector = 512;  // the unit of "start", whatever the disk's block size

std::string numbers(uint64_t major, uint64_t minor) {
  return std::to_string(major) + ":" + std::to_string(minor);
}

// A device number passes to another disk when this one is taken off, and at the next start of the machine: the kernel
// counts the disks that were attached since.
std::string identityOfDisk(const std::string& number) {
  std::string text = "block " + number;
  if (const auto attached = readWholeNumber("/sys/dev/block/" + number + "/diskseq")) {
    text += " attached as " + std::to_string(*attached);
  }
  if (const auto start = readTrimmed("/proc/sys/kernel/random/boot_id")) text += " since " + *start;
  return text;
}

DeviceIdentity identityOfNode(dev_t number, uint64_t offset) {
  const fs::path device = "/sys/dev/block/" + numbers(major(number), minor(number));
  DeviceIdentity identity{identityOfDisk(numbers(major(number), minor(number))), offset};
  if (!readWholeNumber(device / "partition")) return identity;
  // A partition's folder lies in its disk's.
  std::error_code error;
  const fs::path folder = fs::canonical(device, error);
  const std::optional<uint64_t> start = readWholeNumber(device / "start");
  const std::optional<std::string> disk = readTrimmed(folder.parent_path() / "dev");
  if (error || !start || !disk) return {identity.disk, std::nullopt};
  return {identityOfDisk(*disk), *start * kSysfsSector + offset};
}

}  // namespace

std::optional<DeviceIdentity> identityOf(int descriptor, uint64_t offset) {
  struct statx status = {};
  if (statx(descriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return std::nullopt;
  if (S_ISBLK(status.stx_mode)) return identityOfNode(makedev(status.stx_rdev_major, status.stx_rdev_minor), offset);
  std::string file =
      "file " + numbers(status.stx_dev_major, status.stx_dev_minor) + " " + std::to_string(status.stx_ino);
  // The time of birth tells a file from a later one that was given the same number.
  if ((status.stx_mask & STATX_BTIME) != 0) {
    file += " " + std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
  }
  return DeviceIdentity{file, offset};
}

}  // namespace vorlix
