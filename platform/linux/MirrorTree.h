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

/// Refuses a name that mtools could not write to a FAT volume as it stands (`path` ends in it).
Refusal checkFatName(const std::string& path);

/// Refuses two names in one folder that differ only in the case of letters (foldedFatName()).
Refusal checkFatCase(const MirrorTree& tree);

/// Removes a mirror with all that is in it, the folder itself included.
Refusal removeMirrorTree(const std::string& folder);

/// Who has a file or folder of it open, mapped or as a current folder, as "process 12 (vi)"; empty where nobody is seen
/// to. An ordinary user sees the processes of that user, who is the only one that can reach the mirror.
std::string userOfFolder(const std::string& folder);

/// Refuses, with kDissentBusy, when any process has a file in it open or mapped: one of another user, or of another
/// mount namespace, that userOfFolder() cannot see. Where the file system or the user's rights do not let that be told,
/// nothing is refused.
Refusal checkNoFileOpen(const std::string& folder);

}  // namespace vorlix
