// SPDX-License-Identifier: Apache-2.0
#include "DeviceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "../posix/FileHandle.h"
#include "../posix/PartitionExtents.h"
#include "BlockDevices.h"
#include "DiskLock.h"

namespace vorlix {
namespace {

std::optional<uint64_t> sizeOf(int descriptor) {
  const off_t size = lseek(descriptor, 0, SEEK_END);
  if (size < 0) return std::nullopt;
  return static_cast<uint64_t>(size);
}

uint32_t blockSizeOf(int descriptor, bool isImage) {
  struct stat status = {};
  if (!isImage && fstat(descriptor, &status) == 0) {
    if (const auto size = kernelBlockSize(status.st_rdev)) return *size;
  }
  return imageBlockSize(descriptor);
}

std::optional<Extent> windowOf(int descriptor, const DeviceLocation& location) {
  const std::optional<uint64_t> size = sizeOf(descriptor);
  if (!size) return std::nullopt;
  if (location.hasOwnNode()) return Extent{0, *size};
  const auto window = partitionExtent(descriptor, *size, blockSizeOf(descriptor, location.isImage), location.slice);
  if (!window) errno = ENOENT;
  return window;
}

}  // namespace

std::unique_ptr<DeviceHandle> LinuxDeviceFile::open(const std::string& path, DeviceAccess access, DeviceLock lock) {
  const std::optional<DeviceLocation> location = locateDevice(path);
  if (!location) return nullptr;
  std::shared_ptr<void> held;
  if (lock != DeviceLock::none) {
    held = lockWholeDisk(location->whole, lock);
    if (!held) return nullptr;
  }
  const int mode = access == DeviceAccess::readWrite ? O_RDWR : O_RDONLY;
  const int descriptor = ::open(location->node.c_str(), mode | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  const std::optional<Extent> window = windowOf(descriptor, *location);
  if (!window) {
    const int reason = errno;
    ::close(descriptor);
    errno = reason;
    return nullptr;
  }
  return std::make_unique<FileHandle>(descriptor, *window, std::move(held));
}

}  // namespace vorlix
