// SPDX-License-Identifier: Apache-2.0
//
// The files and folders of a mirror.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Dissenters.h"

namespace vorlix {

/// What distinguishes a changed file from an unchanged one. Of folders, only that they are folders.
struct MirrorEntry {
  bool isFolder = false;
  uint64_t size = 0;
  int64_t modified = 0;  ///< nanoseconds
  int64_t changed = 0;   ///< nanoseconds; the system sets it, so programs cannot set it back
  uint64_t inode = 0;

  friend bool operator==(const MirrorEntry&, const MirrorEntry&) = default;
};

/// Entries by path, which starts with "/" at the mirror. A folder comes before its items.
using MirrorTree = std::map<std::string, MirrorEntry>;

/// Reads the tree. Refuses what a FAT volume cannot have: links, sockets and other special files, files of 4 GiB and
/// more.
Refusal scanMirror(const std::string& folder, MirrorTree& tree);

/// Makes the items of a new mirror accessible to the user alone, for reading, or for reading and writing.
Refusal setMirrorModes(const std::string& folder, bool readOnly);

/// Removes a mirror and everything in it.
Refusal removeMirrorTree(const std::string& folder);

}  // namespace vorlix
