// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing single files of FAT volumes for ordinary users, who may not mount them, without a mirror.
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

#include <memory>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Returns null without a refusal if the volume is mounted, if the user is the super-user, who can mount it, or if it
/// is not an undamaged, writable FAT volume: mounting it then reports why.
std::unique_ptr<UnmountedVolume> openUnmountedFat(const DeviceLocation& location, Refusal& refusal);

/// Looks at the files of a FAT volume, which nobody has mounted. Null with a refusal if it is damaged.
std::unique_ptr<UnmountedVolume> fatToRead(OpenedDevice device, Refusal& refusal);

}  // namespace vorlix
