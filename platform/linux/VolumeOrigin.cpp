// SPDX-License-Identifier: Apache-2.0
#include "VolumeOrigin.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <filesystem>

#include <Vorlix/platform/Descriptor.h>
#include "DeviceFacts.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr int kMostLayers = 16;  // of loop devices over loop devices

// Returns the driver's record of what a loop device was made for. Only users who can open the device get it.
std::optional<loop_info64> loopStatusOf(dev_t device) {
  const std::optional<std::string> node = nodeOfDevice(device);
  const Descriptor descriptor(node ? open(node->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1);
  struct stat status = {};
  loop_info64 info = {};
  if (!descriptor || fstat(descriptor.get(), &status) != 0 || status.st_rdev != device) return std::nullopt;
  if (ioctl(descriptor.get(), LOOP_GET_STATUS64, &info) != 0) return std::nullopt;
  return info;
}

// The path in the kernel's record may lead to another file now, but the inode number still identifies the file.
std::optional<VolumeOrigin> originBehindLoop(dev_t device) {
  const std::optional<std::string> path = backingPathOf(device);
  if (!path) return std::nullopt;
  const uint64_t offset = readWholeNumber(sysfsLink(device) / "loop" / "offset").value_or(0);
  struct stat status = {};
  const bool isThere = stat(path->c_str(), &status) == 0;
  const std::optional<loop_info64> info = loopStatusOf(device);
  if (info && (!isThere || info->lo_inode != status.st_ino)) {
    return VolumeOrigin{static_cast<dev_t>(info->lo_device), static_cast<ino_t>(info->lo_inode), offset};
  }
  if (!isThere) return std::nullopt;
  if (S_ISBLK(status.st_mode)) return VolumeOrigin{status.st_rdev, 0, offset};
  return VolumeOrigin{status.st_dev, status.st_ino, offset};
}

// Returns the next layer below; absent at the bottom.
std::optional<VolumeOrigin> below(dev_t device) {
  const std::optional<fs::path> folder = sysfsFolder(device);
  if (!folder || !readWholeNumber(*folder / "partition")) return originBehindLoop(device);
  const std::optional<uint64_t> start = readWholeNumber(*folder / "start");
  const std::optional<dev_t> disk = readDeviceNumber(folder->parent_path() / "dev");
  if (!start || !disk) return std::nullopt;
  return VolumeOrigin{*disk, 0, *start * kSysfsSector};
}

}  // namespace

VolumeOrigin originOfDevice(dev_t device, uint64_t offset) {
  VolumeOrigin origin{device, 0, offset};
  for (int layer = 0; layer < kMostLayers && origin.file == 0; ++layer) {
    const std::optional<VolumeOrigin> next = below(origin.device);
    if (!next) break;
    origin = {next->device, next->file, next->offset + origin.offset};
  }
  return origin;
}

std::optional<VolumeOrigin> originOf(const struct stat& status, uint64_t offset) {
  if (S_ISBLK(status.st_mode)) return originOfDevice(status.st_rdev, offset);
  if (S_ISREG(status.st_mode)) return VolumeOrigin{status.st_dev, status.st_ino, offset};
  return std::nullopt;
}

std::optional<VolumeOrigin> originOfPath(const std::string& path, uint64_t offset) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return originOf(status, offset);
}

std::optional<std::string> backingPathOf(dev_t device) {
  std::optional<std::string> path = readText(sysfsLink(device) / "loop" / "backing_file");
  // Removes one line feed only, because names may end with spaces or line feeds.
  if (path && path->ends_with('\n')) path->pop_back();
  return path && path->empty() ? std::nullopt : path;
}

std::optional<LoopBacking> loopBackingOf(dev_t device) {
  const std::filesystem::path loop = sysfsLink(device) / "loop";
  if (readWholeNumber(loop / "autoclear").value_or(0) == 0) return std::nullopt;
  const std::optional<std::string> path = backingPathOf(device);
  const uint64_t offset = readWholeNumber(loop / "offset").value_or(0);
  // Another file may have replaced it, or have this path in the namespace of this process.
  if (!path || originOfPath(*path, offset) != originOfDevice(device)) return std::nullopt;
  return LoopBacking{*path, offset};
}

}  // namespace vorlix
