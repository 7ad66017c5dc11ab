// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include "DeviceFile.h"
#include "DiskArbitration.h"

namespace vorlix {

Platform nativePlatform() {
  return {std::make_shared<MacDeviceFile>(), std::make_shared<MacDiskArbitration>()};
}

}  // namespace vorlix
