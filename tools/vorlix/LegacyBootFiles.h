// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "Backup.h"
#include "VolumeFolder.h"

namespace vorlix::tool {

/// A file or folder that a legacy start needs and the volume lacks. Paths are absolute.
struct LegacyBootItem {
  std::string source;
  std::string destination;
};

/// The steps of a set-up.
struct LegacyBootPlan {
  std::string root;                   ///< the folder where the volume is mounted
  std::vector<std::string> skipped;   ///< optional sources that are missing
  std::vector<LegacyBootItem> items;  ///< what to copy, in this order
};

/// Plans a set-up without writing anything. Throws Failure if a required source is missing, or if a source or
/// destination is neither a file nor a folder, such as a link that leads off the volume.
/// @param store  absolute path of the boot configuration store
LegacyBootPlan planLegacyBoot(const VolumeFolder& root, const std::string& store);

/// Copies the items to a temporary folder on the volume, syncs them and renames them into place. The folder "boot",
/// whose presence shows that the volume is set up, comes last and is complete. Throws Failure.
/// @return the folder of the backup, which lists what was made; empty if there is none.
std::string copyLegacyBootFiles(const VolumeFolder& root, const LegacyBootPlan& plan, const BackupChoice& choice);

/// Removes the temporary folder of an interrupted set-up. Throws Failure, also if another process is using the folder.
void removeLegacyBootLeftovers(const VolumeFolder& root);

}  // namespace vorlix::tool
