// SPDX-License-Identifier: Apache-2.0
//
// The files and folders of a mirrored volume, as the system sees them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Dissenters.h"

namespace vorlix {

/// What tells a changed file from one that nobody touched. Of folders only that they are folders.
struct MirrorEntry {
  bool isFolder = false;
  uint64_t size = 0;
  int64_t modified = 0;  ///< nanoseconds
  int64_t changed = 0;   ///< nanoseconds; the system sets it, so no program can turn it back
  uint64_t inode = 0;

  friend bool operator==(const MirrorEntry&, const MirrorEntry&) = default;
};

/// By path, which starts with "/" at the mirror. A folder comes before what is in it.
using MirrorTree = std::map<std::string, MirrorEntry>;

/// Reads what is there. Refuses what a FAT volume cannot hold: links, sockets and the like, files of 4 GiB and more.
Refusal scanMirror(const std::string& folder, MirrorTree& tree);

/// Gives what is in a new mirror to the user alone, for reading or for writing as well.
Refusal setMirrorModes(const std::string& folder, bool readOnly);

/// Removes a mirror with all that is in it, the folder itself included.
Refusal removeMirrorTree(const std::string& folder);

}  // namespace vorlix
