// SPDX-License-Identifier: Apache-2.0
//
// The outline of a FAT file system: enough to tell whether it may be copied, whether it is still the same, and how full
// it is.
//
// Source of the layout: Microsoft, "FAT: General Overview of On-Disk Format", version 1.03 (fatgen103).
#pragma once

#include <cstdint>
#include <string>

#include "../posix/FileHandle.h"
#include "Dissenters.h"

namespace vorlix {

struct FatOutline {
  /// Sum over the boot area, both file allocation tables and every folder, names, sizes, times and first clusters
  /// included. Any change that a file system driver or tool makes shows in one of these.
  uint64_t digest = 0;
  /// Sum over what tells the file system from others and no change of its files touches: geometry, sizes and, where
  /// they do not lie among bytes that are patched for Windows, serial and label.
  uint64_t identity = 0;
  uint64_t files = 0;
  uint64_t folders = 0;    ///< without the root
  uint64_t totalSize = 0;  ///< of all files, in bytes
};

/// Reads the outline of the file system in `window`. Refuses (kDissentUnsupported) one that does not fit into the
/// window, and one in which a folder is reached twice or files claim more than the volume holds: programs that copy it
/// would write outside the window or never come to an end.
Refusal readFatOutline(int descriptor, Extent window, FatOutline& outline);

/// What a FAT file system has room for, in bytes: whole clusters. The free ones are counted in the first allocation
/// table; the hint of FAT32's information sector may be wrong.
struct FatSpace {
  uint64_t total = 0;
  uint64_t free = 0;
};

/// Reads no more than the boot sector and that table. Refuses as readFatOutline() does a file system that does not fit.
Refusal readFatSpace(int descriptor, Extent window, FatSpace& space);

}  // namespace vorlix
