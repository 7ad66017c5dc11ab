// SPDX-License-Identifier: Apache-2.0
#include "DeviceFile.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "DeviceFacts.h"
#include "DeviceNames.h"
#include "DiskLock.h"
#include "OpenedDevice.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {

std::unique_ptr<DeviceHandle> LinuxDeviceFile::open(const std::string& path, DeviceAccess access, DeviceLock lock) {
  const std::optional<DeviceLocation> location = locateDevice(path);
  if (!location) return nullptr;
  // The kernel lets root open a write-protected disk for writing and refuses only the writes.
  if (access == DeviceAccess::readWrite && !location->isImage && isReadOnlyMedium(*location)) {
    errno = EROFS;
    return nullptr;
  }
  std::shared_ptr<void> held;
  if (lock != DeviceLock::none) {
    held = lockWholeDisk(location->whole, lock);
    if (!held) return nullptr;
  }
  std::optional<OpenedDevice> device = openLocation(*location, access == DeviceAccess::readWrite ? O_RDWR : O_RDONLY);
  if (!device) return nullptr;
  return std::make_unique<FileHandle>(device->descriptor.release(), device->window, std::move(held), device->blockSize);
}

}  // namespace vorlix
