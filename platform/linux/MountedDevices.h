// SPDX-License-Identifier: Apache-2.0
//
// The names of devices and images whose volumes are mounted.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "MountSources.h"

namespace vorlix {

/// Returns the image, or the slice of one, whose bytes a loop device shows, if the loop device was made for one mount
/// and disappears with it: to users the volume is the image's. Absent for other devices.
std::optional<std::string> imageBehind(dev_t device);

/// Returns the name by which others find a device or image. Absent if it has none now.
std::optional<std::string> deviceNameOf(const MountSource& source);

/// Returns the name of the device, image or slice of an image whose volume is mounted at `path`.
std::optional<std::string> deviceMountedAt(const std::string& path);

}  // namespace vorlix
