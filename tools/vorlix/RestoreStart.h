// SPDX-License-Identifier: Apache-2.0
//
// How a restored volume starts: its start files for EFI, and what is still missing.
#pragma once

#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vorlix::tool {

/// Whether the volume's own boot files and a store go to the EFI System Partition.
enum class EFIFiles {
  none,
  ifThere,  ///< if the volume has boot files for EFI, and they can be put there
  required
};

/// The word that the journal of a restore has for it.
std::string wordOf(EFIFiles files);
EFIFiles efiFilesOf(const std::string& word);

/// A restored volume and how it is to start.
struct RestoredVolume {
  std::string disk;
  uint32_t partition = 0;
  bool isLegacy = false;
  EFIFiles files = EFIFiles::none;
  bool isFromWim = false;
};

/// Returns why no start files for EFI can be put on a system partition, as far as that can be told before the volume is
/// restored. Absent if nothing is known to be in the way.
std::optional<std::string> efiObstacle(const std::string& systemPartition);

/// What became of the start files for EFI.
enum class EFIResult {
  unwanted,  ///< or the volume has no boot files for EFI
  there,
  missing  ///< there is an obstacle, which was said
};

/// Puts the start files for EFI in place. Throws Failure.
/// @param backup  where what they replace is kept
EFIResult putEFIFiles(const RestoredVolume& volume, const ChangeBackup& backup, std::FILE* output);

/// Says what a start still needs, unless the volume is only restored. Throws Failure if that cannot be told.
/// @param files  what putEFIFiles() has returned
/// @return whether the disk starts as far as can be told
bool printStart(const RestoredVolume& volume, EFIResult files, std::FILE* output);

}  // namespace vorlix::tool
