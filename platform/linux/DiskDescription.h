// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/foundation/Value.h>

#include <optional>

#include "DeviceNames.h"
#include "OpenedDevice.h"
#include "VolumeProbe.h"

namespace vorlix {

/// Describes an existing device as it is now, from sysfs, the mount table and, if the user can read the device,
/// libblkid. If the user cannot, the kind of a mounted volume comes from the mount table as well.
Dictionary describeDisk(const DeviceLocation& location);

/// Returns the entries of that description that are about the volume. The device is opened once.
Dictionary describeVolumeOf(const DeviceLocation& location);

/// Return single entries of that description.
std::optional<std::string> volumeTypeOf(const DeviceLocation& location);
std::optional<UUID> volumeUUIDOf(const DeviceLocation& location);
std::optional<uint32_t> mediumBlockSize(const DeviceLocation& location);
std::optional<URL> volumePathOf(const DeviceLocation& location);

/// Returns what is known about the file system on a device: from libblkid, or from udev's record if the device could
/// not be opened.
std::optional<ProbedVolume> volumeFactsOf(const DeviceLocation& location, const std::optional<OpenedDevice>& device);

}  // namespace vorlix
