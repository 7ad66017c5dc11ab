// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DeviceFile.h>

namespace vorlix {

/// Block devices and disk-image files. Locks are flock() locks on the whole disk.
class LinuxDeviceFile final : public DeviceFile {
 public:
  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) override;
};

}  // namespace vorlix
