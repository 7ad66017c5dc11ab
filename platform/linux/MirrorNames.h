// SPDX-License-Identifier: Apache-2.0
//
// Which names in a mirror can be written to a FAT volume.
#pragma once

#include <string>

#include "Dissenters.h"
#include "MirrorTree.h"

namespace vorlix {

/// Refuses a path whose last name mtools cannot write to a FAT volume unchanged.
Refusal checkFatName(const std::string& path);

/// Refuses two names in one folder that differ only in letter case (foldedFatName()).
Refusal checkFatCase(const MirrorTree& tree);

}  // namespace vorlix
