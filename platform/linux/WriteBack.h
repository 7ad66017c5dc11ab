// SPDX-License-Identifier: Apache-2.0
//
// The way of changes from a mirror to the medium.
#pragma once

#include "DeviceNames.h"
#include "Dissenters.h"
#include "MirrorPlace.h"
#include "MirrorTree.h"

namespace vorlix {

/// Brings what was changed in the mirror of `place`, which holds `tree`, to the medium.
///
/// 1. The disk is locked, opened once, and what was cut off on it earlier is finished.
/// 2. The volume is read and checked; it must be the one that was mirrored, and as it was then.
/// 3. mtools puts the changes into a private copy of the volume. No other program ever has the disk open.
/// 4. The copy is read and checked, and compared with the mirror file by file.
/// 5. What differs between medium and copy is journalled, written, synced and read back.
///
/// Whatever fails before the last step leaves the disk as it was. The mirror stays in any case; afterwards its state
/// tells that it is written.
Refusal writeBack(const DeviceLocation& location, MirrorPlace& place, const MirrorTree& tree);

}  // namespace vorlix
