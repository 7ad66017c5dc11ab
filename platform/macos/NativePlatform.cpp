// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include "DeviceFile.h"
#include "DiskArbitration.h"
#include "IORegistry.h"

namespace vorlix {

Platform nativePlatform() {
  Platform native;
  native.deviceFile = std::make_shared<MacDeviceFile>();
  native.diskArbitration = std::make_shared<MacDiskArbitration>();
  native.ioRegistry = std::make_shared<MacIORegistry>();
  return native;
}

}  // namespace vorlix
