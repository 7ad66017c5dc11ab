// SPDX-License-Identifier: Apache-2.0
//
// An open device with the window that belongs to a name.
#pragma once

#include <optional>

#include <Vorlix/platform/Descriptor.h>
#include "DeviceNames.h"
#include "platform/posix/Extent.h"

namespace vorlix {

struct OpenedDevice {
  Descriptor descriptor;
  uint64_t fileSize = 0;   ///< size of what the descriptor refers to
  uint32_t blockSize = 0;  ///< logical block size
  Extent window;           ///< all of it, or a slice without its own node
};

/// Opens a device's node with `flags` (O_RDONLY or O_RDWR) and finds its slice. Absent with `errno` set: ENOENT for a
/// slice that the disk does not have, or the error of the system.
std::optional<OpenedDevice> openLocation(const DeviceLocation& location, int flags);

}  // namespace vorlix
