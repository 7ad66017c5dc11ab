// SPDX-License-Identifier: Apache-2.0
#include "OpenedDevice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "DeviceFacts.h"
#include "platform/posix/PartitionExtents.h"

namespace vorlix {
namespace {

uint32_t blockSizeOf(int descriptor, bool isImage) {
  struct stat status = {};
  if (!isImage && fstat(descriptor, &status) == 0) {
    if (const auto size = kernelBlockSize(status.st_rdev)) return *size;
  }
  return imageBlockSize(descriptor);
}

}  // namespace

std::optional<OpenedDevice> openLocation(const DeviceLocation& location, int flags) {
  OpenedDevice device;
  device.descriptor = Descriptor(aboveStandardStreams(open(location.node.c_str(), flags | O_CLOEXEC)));
  if (!device.descriptor) return std::nullopt;
  const int descriptor = device.descriptor.get();
  const off_t size = lseek(descriptor, 0, SEEK_END);
  if (size < 0) return std::nullopt;
  device.fileSize = static_cast<uint64_t>(size);
  device.blockSize = blockSizeOf(descriptor, location.isImage);
  device.window = {0, device.fileSize};
  if (location.hasOwnNode()) return device;
  const auto window = partitionExtent(descriptor, device.fileSize, device.blockSize, location.slice);
  if (!window) {
    errno = ENOENT;
    return std::nullopt;
  }
  device.window = *window;
  return device;
}

}  // namespace vorlix
