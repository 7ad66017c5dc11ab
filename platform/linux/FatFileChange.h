// SPDX-License-Identifier: Apache-2.0
//
// Computes which sectors change if one file of a FAT volume gets other content. Nothing is written here.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>

#include "Dissenters.h"
#include "FatVolume.h"

namespace vorlix {

/// The sectors that change. They are written in the order of the members, so that a name never leads to content that
/// was not written yet.
struct FatFileChange {
  FatSectors content;
  FatSectors folders;
  FatSectors tables;  ///< including the boot area

  /// Returns all sectors, for a FatSource that shows the changed volume.
  FatSectors all() const;
};

/// Returns whether makeFatFile() can make a file of that name: at most eight and three capital letters, digits or "_".
bool isPlainFatName(const std::string& name);

/// Replaces the content of the file at `entry`. Its name, its place in the folder, its attributes and its time of
/// creation stay; the archive attribute is set.
///
/// The new content uses free clusters first and those of the old content last. Refused with kDissentNoResources if both
/// together are too few.
Refusal replaceFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change);

/// Makes a file in `folder`, which must not have a file of that name. Refused with kDissentUnsupported if the name is
/// not plain or is the short name of another file there, and with kDissentNoResources if there is no room.
Refusal makeFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& folder, const std::string& name,
                    std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change);

/// Checks the changed volume. Refuses the change if the volume would be damaged, if any other file or folder would
/// change, or if the file at `path` would not have these bytes.
Refusal checkFatFileChange(const FatSource& changed, const FatVolume& before, const std::string& path,
                           std::span<const uint8_t> bytes);

/// Finds out whether the file at `entry` has exactly these bytes.
Refusal compareFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, bool& isEqual);

}  // namespace vorlix
