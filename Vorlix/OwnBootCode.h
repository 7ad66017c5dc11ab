// SPDX-License-Identifier: Apache-2.0
/// @file
/// The library's own boot code for sector 0 of a disk, so that nobody has to find that of another program. It is the
/// assembled boot/mbr.S: it starts the slot that is active, and prints a line if there is none, if there are several,
/// if the slot cannot be read or if it has no boot sector. It finds slots anywhere within the 32 bits of an MBR.
#pragma once

#include <Vorlix/BootSectors.h>
#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstdint>

namespace vorlix {

/// Boot code for sector 0, without disk signature, slots and signature.
using DiskBootCode = std::array<uint8_t, kPureBootCodeSize>;

/// Returns the boot code. Zeros follow its last byte. It leaves out the disk signature and the slots, which belong to
/// the disk.
VORLIX_EXPORT DiskBootCode ownBootCode();

/// Returns whether a sector 0 has nothing but zeros in the place of the boot code, whatever its disk signature is.
VORLIX_EXPORT bool lacksDiskBootCode(const Sector& sector0);

}  // namespace vorlix
