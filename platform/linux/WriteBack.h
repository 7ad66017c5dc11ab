// SPDX-License-Identifier: Apache-2.0
//
// Writing the changes in a mirror back to the medium.
#pragma once

#include "DeviceNames.h"
#include "Dissenters.h"
#include "MirrorPlace.h"
#include "MirrorTree.h"

namespace vorlix {

/// Writes the changes in the mirror of `place`, whose present tree is `tree`, to the medium.
///
/// 1. The disk is locked and opened once, and an interrupted change on it is finished.
/// 2. The volume is read and checked. It must be the mirrored one and unchanged.
/// 3. mtools makes the changes in a private copy of the volume. No other program opens the disk.
/// 4. The copy is read and checked, and compared with the mirror file by file.
/// 5. The differences between medium and copy are journalled, written, synced and read back.
///
/// A failure before the last step leaves the disk as it was. The mirror stays in any case; its state then says that it
/// was written.
Refusal writeBack(const DeviceLocation& location, MirrorPlace& place, const MirrorTree& tree);

}  // namespace vorlix
