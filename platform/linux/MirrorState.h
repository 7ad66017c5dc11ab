// SPDX-License-Identifier: Apache-2.0
//
// What is kept of each mirrored volume, so that any process of the user finds it again. docs/mirrors.md describes what
// a process that ends at any moment leaves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "MirrorTree.h"

namespace vorlix {

/// What tells the folder of a mirror from another one that was put in its place. Moving the folder keeps both.
struct FolderIdentity {
  uint64_t inode = 0;
  int64_t birth = 0;  ///< nanoseconds; 0 where the file system does not tell
};

struct MirrorState {
  std::string device;     ///< BSD name of the disk or slice
  std::string folder;     ///< the mirror, which is the mount point
  FolderIdentity made;    ///< the folder that the volume's files were copied to
  bool readOnly = false;  ///< the medium could not be written when the mirror was made

  /// All that was changed is on the medium, or was thrown away: what is left of the mirror is to be removed.
  bool leaving = false;

  uint64_t identity = 0;  ///< of the file system (readFatIdentity()); another one may come to lie at the same place

  /// Digest of the file system (FatVolume) with which the mirror was the same, and the mirror's tree then.
  uint64_t digest = 0;
  MirrorTree baseline;

  /// A write-back that was begun: where the volume has this digest it came to its end, and the mirror was the same as
  /// the volume with this tree. Where the volume still has the older digest nothing of it was written.
  struct Written {
    uint64_t digest = 0;
    MirrorTree tree;
  };
  std::optional<Written> written;
};

/// As bytes, for MirrorPlace.
std::string encodeMirrorState(const MirrorState& state);
std::optional<MirrorState> decodeMirrorState(std::string_view bytes);

}  // namespace vorlix
