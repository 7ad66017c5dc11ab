// SPDX-License-Identifier: Apache-2.0
//
// Copying files of a FAT volume to files of the system, and comparing them.
#pragma once

#include <string>

#include "Dissenters.h"
#include "FatVolume.h"

namespace vorlix {

/// A volume with the bytes that it was read from.
struct OpenVolume {
  int descriptor = -1;
  Extent window;
  FatVolume volume;

  Refusal read(int from, Extent where) {
    descriptor = from;
    window = where;
    return volume.read(from, where);
  }
};

/// Writes a piece of a file. `path` is its name in a refusal.
Refusal writePiece(int file, const std::string& path, const uint8_t* bytes, size_t count, uint64_t offset);

/// Copies all files, with their times, to an empty folder of the system, syncs them and compares them. Files get mode
/// 0600, folders 0700.
Refusal copyVolumeTo(const OpenVolume& from, const std::string& folder);

/// Compares the size and content of a file with those of a file of the system.
Refusal compareFile(const OpenVolume& from, const FatEntry& entry, const std::string& file, bool& isEqual);

}  // namespace vorlix
