// SPDX-License-Identifier: Apache-2.0
//
// Single files of FAT volumes that an ordinary user may not mount, read and written without a mirror.
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

#include <memory>

#include "DeviceNames.h"
#include "Dissenters.h"

namespace vorlix {

/// Null without a refusal where the volume is mounted, is the super-user's to mount, is no sound FAT volume, or cannot
/// be written: whoever mounts it is told why.
std::unique_ptr<UnmountedVolume> openUnmountedFat(const DeviceLocation& location, Refusal& refusal);

}  // namespace vorlix
