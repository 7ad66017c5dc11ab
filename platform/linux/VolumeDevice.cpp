// SPDX-License-Identifier: Apache-2.0
#include "VolumeDevice.h"

#include <Vorlix/platform/DiskChange.h>
#include <fcntl.h>

#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "DeviceFacts.h"
#include "DiskLock.h"
#include "OpenedDevice.h"

namespace vorlix {

Refusal VolumeDevice::open(const DeviceLocation& location, bool forWriting) {
  std::shared_ptr<void> lock;
  if (forWriting) {
    lock = lockWholeDisk(location.whole, DeviceLock::exclusive);
    if (!lock) return dissenterFor(errno, location.whole);
  }
  std::optional<OpenedDevice> opened = openLocation(location, forWriting ? O_RDWR : O_RDONLY);
  if (!opened) return dissenterFor(errno, location.node);
  const std::optional<std::string> name = bsdNameOf(location);
  if (!name) return dissenterFor(ENOENT, location.whole);
  name_ = name->starts_with("/") ? *name : "/dev/" + *name;
  forWriting_ = forWriting;
  window_ = opened->window;
  descriptor_ = opened->descriptor.get();
  handle_ = std::make_unique<FileHandle>(opened->descriptor.release(), window_, std::move(lock));
  return std::nullopt;
}

Refusal VolumeDevice::settle() {
  if (forWriting_) {
    std::vector<std::string> finished;
    const auto failure = settleInterruptedChanges(name_, *handle_, finished);
    return failure ? Refusal(dissenterFor(*failure)) : std::nullopt;
  }
  const std::vector<InterruptedChange> interrupted = interruptedChanges(*handle_);
  if (interrupted.empty()) return std::nullopt;
  return Dissenter{kDissentNotWritable, "a change was interrupted there (" + interrupted.front().title +
                                            "), and the disk cannot be written to finish it"};
}

Refusal settleVolume(const DeviceLocation& location) {
  VolumeDevice reading;
  if (Refusal refusal = reading.open(location, false)) return refusal;
  const Refusal unfinished = reading.settle();
  if (!unfinished) return std::nullopt;
  VolumeDevice writing;
  if (Refusal refusal = writing.open(location, true)) {
    const bool isReadOnly = refusal->status == kDissentNotPrivileged || refusal->status == kDissentNotWritable ||
                            refusal->status == kDissentNotPermitted;
    return isReadOnly ? unfinished : refusal;
  }
  return writing.settle();
}

}  // namespace vorlix
