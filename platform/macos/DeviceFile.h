// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DeviceFile.h>

namespace vorlix {

/// Device nodes, block or raw, and disk-image files. Locks are those that open() takes (O_EXLOCK, O_SHLOCK): on a node
/// they lie on the very disk or slice that was opened, on an image on the whole file.
class MacDeviceFile final : public DeviceFile {
 public:
  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) override;
};

}  // namespace vorlix
