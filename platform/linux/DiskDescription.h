// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/foundation/Value.h>

#include <optional>

#include "DeviceNames.h"
#include "OpenedDevice.h"
#include "VolumeProbe.h"

namespace vorlix {

/// What is known now of a device that is there: from sysfs, from libblkid where the user may read the device, and from
/// the mount table. Kinds of mounted volumes that cannot be read come from the mount table, too.
Dictionary describeDisk(const DeviceLocation& location);

/// Single entries of that description.
std::optional<std::string> volumeTypeOf(const DeviceLocation& location);
std::optional<UUID> volumeUUIDOf(const DeviceLocation& location);
std::optional<uint32_t> mediumBlockSize(const DeviceLocation& location);
std::optional<URL> volumePathOf(const DeviceLocation& location);

/// The file system on a device: by libblkid, or by udev's record where the device could not be opened.
std::optional<VolumeFacts> volumeFactsOf(const DeviceLocation& location, const std::optional<OpenedDevice>& device);

}  // namespace vorlix
