// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "VolumeFolder.h"

namespace vorlix::tool {

/// A file or folder of legacy start that a volume lacks. Paths are absolute.
struct LegacyBootItem {
  std::string source;
  std::string destination;
};

/// What a set-up does.
struct LegacyBootPlan {
  std::string root;                  ///< of the volume
  std::vector<std::string> skipped;  ///< sources that are missing and may be
  std::vector<LegacyBootItem> items;
};

/// Looks at a volume and writes nothing. Throws Failure where a source is missing or leads off the volume, or something
/// stands in the way.
/// @param store  the boot configuration store, an absolute path
LegacyBootPlan planLegacyBoot(const VolumeFolder& root, const std::string& store);

/// Copies the items to a folder aside on the volume, brings them to the medium and renames them into place; the folder
/// "boot", whose presence says that the volume is set up, comes last and whole. Throws Failure.
void copyLegacyBootFiles(const VolumeFolder& root, const LegacyBootPlan& plan);

/// Removes the folder aside that a set-up which was cut off has left. Throws Failure, also where one is at work.
void removeLegacyBootLeftovers(const VolumeFolder& root);

}  // namespace vorlix::tool
