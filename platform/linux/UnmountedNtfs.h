// SPDX-License-Identifier: Apache-2.0
//
// Reading single files of NTFS volumes that are not mounted.
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

#include <memory>

#include "Dissenters.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Looks at the files of an NTFS volume, which nobody has mounted, by the companion program. Null with a refusal if it
/// cannot be read.
std::unique_ptr<UnmountedVolume> ntfsToRead(OpenedDevice device, Refusal& refusal);

}  // namespace vorlix
