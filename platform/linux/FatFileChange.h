// SPDX-License-Identifier: Apache-2.0
//
// One file of a FAT volume with another content, as the sectors that change. Nothing is written here.
#pragma once

#include <cstdint>
#include <ctime>
#include <span>
#include <string>

#include "Dissenters.h"
#include "FatVolume.h"

namespace vorlix {

/// What changes, by what the sectors hold: it is written in this order, so that no name leads to content that is not
/// there yet.
struct FatFileChange {
  FatSectors content;
  FatSectors folders;
  FatSectors tables;  ///< and the boot area

  /// All of it, for a FatSource of the volume as it is to become.
  FatSectors all() const;
};

/// Whether makeFatFile() can make a file of that name: at most eight and three capital letters, digits or "_".
bool isPlainFatName(const std::string& name);

/// Gives the file at `entry` other content. It keeps its name, its place in the folder, its attributes and its time of
/// creation; the attribute that backups ask for is set.
///
/// The new content goes into free clusters, those of the old one come last. Refused with kDissentNoResources where both
/// together are too few.
Refusal replaceFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change);

/// Makes a file in `folder`, which has none of that name. Refused with kDissentUnsupported where another file there has
/// the name as its short one, or the name is not plain, and with kDissentNoResources where there is no room.
Refusal makeFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& folder, const std::string& name,
                    std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change);

/// Reads the volume as it would be, and refuses a change after which it is not sound, has not all that it had as it
/// was, or has not `bytes` at `path`.
Refusal checkFatFileChange(const FatSource& changed, const FatVolume& before, const std::string& path,
                           std::span<const uint8_t> bytes);

/// Whether the file at `entry` holds just these bytes.
Refusal compareFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, bool& isEqual);

}  // namespace vorlix
