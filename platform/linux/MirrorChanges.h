// SPDX-License-Identifier: Apache-2.0
//
// The differences between a mirror and its volume, and making them in a copy of the volume.
#pragma once

#include <string>
#include <vector>

#include "Dissenters.h"
#include "FatVolume.h"
#include "MirrorCopy.h"
#include "MirrorState.h"
#include "MirrorTree.h"
#include "Mtools.h"

namespace vorlix {

/// The entries belong to the volume that was read.
struct MirrorChanges {
  struct File {
    std::string path;
    const FatEntry* old = nullptr;  ///< null for a new file
  };
  std::vector<const FatEntry*> removed;  ///< a folder before its items
  std::vector<std::string> folders;      ///< new folders, a folder before its items
  std::vector<File> files;               ///< new and changed files
  bool empty() const { return removed.empty() && folders.empty() && files.empty(); }
};

/// Compares a mirror with its volume. Reads only files that were touched since `baseline`. Refuses new names that a FAT
/// volume cannot have.
Refusal findChanges(const MirrorTree& baseline, const MirrorTree& tree, const std::string& folder,
                    const OpenVolume& volume, MirrorChanges& changes);

/// Whether the old and the new content of all files fit on the volume together.
enum class Room { besideEachOther, oneAfterTheOther };

/// Refuses with kDissentNoResources changes whose result does not fit on the volume, by the sizes of the files and one
/// cluster for each new folder. Folders that grow are not counted.
Refusal checkRoom(const MirrorChanges& changes, const MirrorTree& tree, const FatVolume& volume, Room& room);

/// Makes the changes in a copy of the volume. If there is room, the new content of a file is complete before the old is
/// removed.
Refusal applyChanges(const MirrorChanges& changes, const MirrorTree& tree, const std::string& folder, Room room,
                     const Mtools& copy);

/// Refuses a copy that does not have exactly the files of the mirror, with their names, sizes and bytes. mtools may
/// have changed the case of letters that are not ASCII.
Refusal checkCopy(const OpenVolume& copy, const MirrorTree& tree, const std::string& folder);

}  // namespace vorlix
