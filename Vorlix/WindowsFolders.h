// SPDX-License-Identifier: Apache-2.0
/// @file
/// Windows boot files on a volume of their own.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Value.h>

#include <initializer_list>
#include <string>
#include <utility>

class QDVolume;

namespace vorlix {

/// The path of an item below a folder of a volume. On NTFS, FAT and exFAT, Windows does not tell upper case from lower;
/// some drivers for NTFS, and the folder that a FAT volume is mirrored in, do. On such a volume a name that is not
/// found as it stands is therefore taken in the spelling that the volume has.
VORLIX_EXPORT std::string pathOnVolume(const QDVolume& volume, std::string folder,
                                       std::initializer_list<const char*> names);

/// Where boot files are on a volume, if it has any. Both are empty for a volume without a mount path.
struct BootFiles {
  std::string folder;   ///< path of the folder; empty if there is none
  std::string manager;  ///< path of the boot manager; empty if there is none
};

/// Looks for them on a mounted volume.
VORLIX_EXPORT BootFiles bootFilesOf(const QDVolume& volume);

/// Whether a volume looks like the partition that Windows sets aside for its boot files, on whatever disk it is.
VORLIX_EXPORT bool isBootPartition(const QDVolume& volume);

/// The answer of splitBootInfo().
inline Dictionary bootInfo(BootFiles files) {
  Dictionary info;
  info.set("bootFolderPath", std::move(files.folder));
  info.set("bootmgrPath", std::move(files.manager));
  return info;
}

}  // namespace vorlix
