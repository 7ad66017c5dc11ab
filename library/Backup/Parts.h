// SPDX-License-Identifier: Apache-2.0
//
// The small structures that are saved beside a volume's content.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

#include <string>
#include <vector>

#include "DiskParts.h"

namespace vorlix {

/// The names of all files that parts are saved in.
std::vector<std::string> allPartFiles();

/// Adds the parts that stand on the volume: its boot record and the copy of its first sector.
void addVolumeParts(BackupPlan& plan);

/// Adds what identifies the volume, and its record.
/// @param description  disk arbitration's, of the volume.
void addIdentityParts(BackupPlan& plan, const VolumesDisk& disk, const Dictionary& description);

}  // namespace vorlix
