// SPDX-License-Identifier: Apache-2.0
#include "DeviceFile.h"

#include <sys/disk.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <Vorlix/platform/SliceName.h>
#include "BlockAlignedHandle.h"
#include "DeviceNames.h"
#include "LockedDescriptor.h"
#include "platform/posix/FileHandle.h"
#include "platform/posix/PartitionExtents.h"

namespace vorlix {
namespace {

struct Geometry {
  Extent window;
  uint32_t blockSize = 0;  ///< of a node
  uint32_t alignment = 1;  ///< offsets and counts of transfers are multiples of it
};

std::optional<Geometry> geometryOfDevice(int descriptor, mode_t mode) {
  uint32_t blockSize = 0;
  uint64_t blockCount = 0;
  if (ioctl(descriptor, DKIOCGETBLOCKSIZE, &blockSize) != 0 ||
      ioctl(descriptor, DKIOCGETBLOCKCOUNT, &blockCount) != 0) {
    if (errno == ENOTTY) errno = ENOTBLK;  // a node, but not of a disk
    return std::nullopt;
  }
  Geometry geometry;
  geometry.blockSize = blockSize;
  if (blockSize == 0 || __builtin_mul_overflow(blockCount, uint64_t{blockSize}, &geometry.window.size)) {
    errno = EIO;
    return std::nullopt;
  }
  if (S_ISCHR(mode)) geometry.alignment = blockSize;
  return geometry;
}

std::optional<Geometry> geometryOfImage(int descriptor, off_t fileSize, uint32_t slice) {
  const auto size = static_cast<uint64_t>(fileSize);
  if (slice == 0) return Geometry{{0, size}, 0};
  const std::optional<Extent> window = partitionExtent(descriptor, size, imageBlockSize(descriptor), slice);
  if (!window) {
    errno = ENOENT;
    return std::nullopt;
  }
  return Geometry{*window, 0};
}

std::optional<Geometry> geometryOf(int descriptor, const DeviceLocation& location) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) return std::nullopt;
  if (location.isImage) return geometryOfImage(descriptor, status.st_size, location.slice);
  std::optional<Geometry> geometry = geometryOfDevice(descriptor, status.st_mode);
  if (!geometry || location.slice == 0) return geometry;
  const std::optional<Extent> window =
      partitionExtent(descriptor, geometry->window.size, geometry->blockSize, location.slice);
  if (!window) {
    errno = ENOENT;
    return std::nullopt;
  }
  geometry->window = *window;
  return geometry;
}

std::unique_ptr<DeviceHandle> handleOver(LockedDescriptor opened, const DeviceLocation& location) {
  const std::optional<Geometry> geometry = geometryOf(opened.descriptor, location);
  if (!geometry) {
    const int reason = errno;
    ::close(opened.descriptor);
    opened.lock.reset();
    errno = reason;
    return nullptr;
  }
  auto handle = std::make_unique<FileHandle>(opened.descriptor, geometry->window, std::move(opened.lock));
  if (geometry->alignment == 1) return handle;
  return std::make_unique<BlockAlignedHandle>(std::move(handle), geometry->alignment);
}

std::unique_ptr<DeviceHandle> openNamed(const std::string& path, DeviceAccess access, DeviceLock lock) {
  const std::optional<DeviceLocation> location = locateDevice(path);
  if (!location) return nullptr;
  LockedDescriptor opened = openWithLock(location->path, access, lock);
  if (opened.descriptor < 0) return nullptr;
  return handleOver(std::move(opened), *location);
}

// While a process keeps a disk to itself, the system takes the nodes of its slices away (for a writer) or refuses them.
// This process then reaches a slice through its own open file of the disk, by the disk's GPT or MBR.
std::unique_ptr<DeviceHandle> openThroughDisk(const std::string& path, DeviceAccess access, DeviceLock lock) {
  const std::optional<SliceName> slice = parseSliceName(path);
  std::optional<DeviceLocation> disk = slice ? locateDevice(slice->whole) : std::nullopt;
  if (!disk || disk->isImage) return nullptr;
  LockedDescriptor shared = shareLocked(disk->path, access, lock);
  if (shared.descriptor < 0) return nullptr;
  disk->slice = slice->number;
  return handleOver(std::move(shared), *disk);
}

}  // namespace

std::unique_ptr<DeviceHandle> MacDeviceFile::open(const std::string& path, DeviceAccess access, DeviceLock lock) {
  auto handle = openNamed(path, access, lock);
  if (handle || (errno != ENOENT && errno != EBUSY)) return handle;
  const int reason = errno;
  handle = openThroughDisk(path, access, lock);
  if (!handle) errno = reason;
  return handle;
}

}  // namespace vorlix
