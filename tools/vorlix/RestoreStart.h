// SPDX-License-Identifier: Apache-2.0
//
// How a restored volume starts: its start files for EFI, and what is still missing.
#pragma once

#include <Vorlix/StartCheck.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vorlix::tool {

/// Whether the volume's own boot files and a store go to the EFI System Partition.
enum class EFIFiles {
  none,
  ifThere,  ///< if the volume has boot files for EFI
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

/// Puts the start files for EFI in place. Throws Failure.
/// @param backup  where what they replace is kept
/// @return whether they are there now: false if the volume has no boot files for EFI.
bool putEFIFiles(const RestoredVolume& volume, const ChangeBackup& backup, std::FILE* output);

/// Returns the way in which the volume is to start; absent if it is only restored.
/// @param hasEFIFiles  what putEFIFiles() has returned
std::optional<StartWay> wayOf(const RestoredVolume& volume, bool hasEFIFiles);

/// Says what a start still needs. Throws Failure if that cannot be told.
/// @return whether the disk starts as far as can be told
bool printStart(const RestoredVolume& volume, StartWay way, std::FILE* output);

}  // namespace vorlix::tool
