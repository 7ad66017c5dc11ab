// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include "DeviceFile.h"
#include "DiskArbitration.h"
#include "IORegistry.h"

namespace vorlix {

Platform nativePlatform() {
  Platform native;
  native.deviceFile = std::make_shared<LinuxDeviceFile>();
  native.diskArbitration = std::make_shared<LinuxDiskArbitration>();
  native.ioRegistry = std::make_shared<LinuxIORegistry>();
  return native;
}

}  // namespace vorlix
