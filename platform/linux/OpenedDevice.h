// SPDX-License-Identifier: Apache-2.0
//
// An open device with the window of it that a name stands for.
#pragma once

#include <optional>

#include <Vorlix/platform/Descriptor.h>
#include "DeviceNames.h"
#include "platform/posix/Extent.h"

namespace vorlix {

struct OpenedDevice {
  Descriptor descriptor;
  uint64_t fileSize = 0;   ///< of what the descriptor reaches
  uint32_t blockSize = 0;  ///< logical block size
  Extent window;           ///< all of it, or a slice that has no node of its own
};

/// Opens a device's node with `flags` (O_RDONLY or O_RDWR) and finds its slice. Absent with `errno` set: ENOENT for a
/// slice that the disk does not have, or what the system says.
std::optional<OpenedDevice> openLocation(const DeviceLocation& location, int flags);

}  // namespace vorlix
