// SPDX-License-Identifier: Apache-2.0
//
// Mounting and unmounting the volume of a device, with the kernel or with a mirror.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "MountSources.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Mounts the volume of a device. A mounted volume stays where it is.
///
/// - For the super-user the kernel mounts the volume in /run/vorlix, with a loop device for an image file or a slice
///   without a node. By default it is mounted for writing if the medium and the driver allow it. With "rw" a mount that
///   would be read-only is refused.
/// - A FAT volume is mirrored for an ordinary user, or if the kernel does not mount it (MirroredVolume.h).
/// - "nobrowse" sets x-gvfs-hide, which desktops understand. They do not show mirrors anyway.
Refusal mountVolume(const std::string& device, const std::vector<std::string>& arguments);

/// Unmounts the volume of a device from all its mount points, whoever mounted it.
Refusal unmountVolume(const std::string& device);

/// The mount point of a volume, and the kernel's name of the file system.
struct VolumePlace {
  std::string path;
  std::string fileSystem;
};

/// Absent if the volume is not mounted. `opened` is absent if the device cannot be read.
std::optional<VolumePlace> volumePlaceOf(const DeviceLocation& location, const std::optional<OpenedDevice>& opened);

}  // namespace vorlix
