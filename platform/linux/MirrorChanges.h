// SPDX-License-Identifier: Apache-2.0
//
// What differs between a mirror and its volume, and how the volume takes it over.
#pragma once

#include <string>
#include <vector>

#include "Dissenters.h"
#include "MirrorState.h"
#include "MirrorTree.h"
#include "Mtools.h"

namespace vorlix {

struct MirrorChanges {
  std::vector<Mtools::Entry> removed;  ///< without what is in a removed folder
  std::vector<std::string> folders;    ///< new ones, a folder before what is in it
  std::vector<Mtools::Entry> files;    ///< new and changed ones, with the attributes that they have on the volume
  bool empty() const { return removed.empty() && folders.empty() && files.empty(); }
};

/// Compares a mirror with its volume, looking into those files only that somebody touched. Refuses new names that a FAT
/// volume cannot hold.
Refusal findChanges(const MirrorState& state, const MirrorTree& tree, const Mtools& volume, MirrorChanges& changes);

/// Writes the changes to the volume, each one verified. Nothing is undone where that fails half-way.
Refusal applyChanges(const MirrorChanges& changes, const MirrorState& state, const MirrorTree& tree,
                     const Mtools& volume);

}  // namespace vorlix
