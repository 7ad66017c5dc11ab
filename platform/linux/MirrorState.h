// SPDX-License-Identifier: Apache-2.0
//
// The saved state of a mirrored volume, by which every process of the user finds it. docs/mirrors.md describes what is
// left if a process is interrupted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "MirrorTree.h"

namespace vorlix {

/// Distinguishes the folder of a mirror from another folder in its place. Moving the folder changes neither member.
struct FolderIdentity {
  uint64_t inode = 0;
  int64_t birth = 0;  ///< nanoseconds; 0 if the file system does not record it
};

struct MirrorState {
  std::string device;     ///< BSD name of the disk or slice
  std::string folder;     ///< path of the mirror, which is the mount point
  FolderIdentity made;    ///< the folder that the volume's files were copied to
  bool readOnly = false;  ///< the medium could not be written when the mirror was made

  /// All changes are on the medium or were discarded. The rest of the mirror must be removed.
  bool leaving = false;

  uint64_t identity = 0;  ///< of the file system (readFatIdentity()); another one may replace it at the same place

  /// Digest of the file system (FatVolume) when the mirror was the same, and the tree of the mirror at that time.
  uint64_t digest = 0;
  MirrorTree baseline;

  /// A write-back that was begun. If the volume has this digest, the write-back was completed, and the mirror with this
  /// tree was the same as the volume. If the volume has the older digest, nothing was written.
  struct Written {
    uint64_t digest = 0;
    MirrorTree tree;
  };
  std::optional<Written> written;
};

/// Convert a state to bytes and back. Absent if the bytes are not a state.
std::string encodeMirrorState(const MirrorState& state);
std::optional<MirrorState> decodeMirrorState(std::string_view bytes);

}  // namespace vorlix
