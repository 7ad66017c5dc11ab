// SPDX-License-Identifier: Apache-2.0
//
// Mounting and unmounting of a disk's volume, by whichever way there is.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "MountSources.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Mounts the volume of a device. One that is mounted already stays where it is.
///
/// - The super-user's mounts are the kernel's, in /run/vorlix; an image file, or a slice without a node, by way of a
///   loop device. Without "rw" a volume is mounted as the system does by default: for writing where the medium and the
///   driver allow it. "rw" refuses rather than to mount it read-only.
/// - A FAT volume that the kernel does not mount, or that is an ordinary user's, is mirrored (MirroredVolume.h).
/// - "nobrowse" is what desktops know as x-gvfs-hide; they do not show mirrors anyway.
Refusal mountVolume(const std::string& device, const std::vector<std::string>& arguments);

/// Unmounts the volume of a device from everywhere it is mounted, whoever mounted it.
Refusal unmountVolume(const std::string& device);

/// Where a volume is mounted, and as what: the kernel's name of the file system.
struct VolumePlace {
  std::string path;
  std::string fileSystem;
};

/// Absent where the volume is not mounted. `opened` is absent where the device cannot be read.
std::optional<VolumePlace> volumePlaceOf(const DeviceLocation& location, const std::optional<OpenedDevice>& opened);

}  // namespace vorlix
