// SPDX-License-Identifier: Apache-2.0
//
// What differs between a mirror and its volume, and how a copy of the volume takes it over.
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

/// Entries are the volume's, and live as long as what was read of it.
struct MirrorChanges {
  struct File {
    std::string path;
    const FatEntry* old = nullptr;  ///< null for a new one
  };
  std::vector<const FatEntry*> removed;  ///< a folder before what is in it
  std::vector<std::string> folders;      ///< new ones, a folder before what is in it
  std::vector<File> files;               ///< new and changed ones
  bool empty() const { return removed.empty() && folders.empty() && files.empty(); }
};

/// Compares a mirror with its volume, looking into those files only that somebody touched since `baseline`. Refuses new
/// names that a FAT volume cannot hold.
Refusal findChanges(const MirrorTree& baseline, const MirrorTree& tree, const std::string& folder,
                    const OpenVolume& volume, MirrorChanges& changes);

/// Whether old and new content of all files have room beside each other.
enum class Room { besideEachOther, oneAfterTheOther };

/// Refuses (kDissentNoResources) changes whose result the volume cannot hold, by the sizes of files and by a cluster
/// for each new folder; folders that grow are not counted.
Refusal checkRoom(const MirrorChanges& changes, const MirrorTree& tree, const FatVolume& volume, Room& room);

/// Puts the changes into a copy of the volume. Where there is room the new content of a file is complete before the old
/// one goes.
Refusal applyChanges(const MirrorChanges& changes, const MirrorTree& tree, const std::string& folder, Room room,
                     const Mtools& copy);

/// Refuses unless the copy holds exactly what the mirror does: each file's name, size and bytes. mtools may have put
/// letters that are not ASCII into the other case.
Refusal checkCopy(const OpenVolume& copy, const MirrorTree& tree, const std::string& folder);

}  // namespace vorlix
