// SPDX-License-Identifier: Apache-2.0
/// @file
/// Names on volumes of Windows, which does not tell upper case from lower there.
///
/// Some drivers for NTFS, and the folder that a FAT volume is mirrored in, do tell them apart: what is looked for under
/// its usual name may stand there in another spelling. The functions ask the ports in force, Files and DiskArbitration.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

/// Returns whether a kind or type of volume, as disk arbitration and listings name them, is one of Windows' own: NTFS,
/// FAT, exFAT.
VORLIX_EXPORT bool isCaseBlind(std::string_view fileSystem);

/// The same for the volume on a device, and for the volume that is mounted at a path. False where nothing is known.
VORLIX_EXPORT bool isCaseBlindDevice(const std::string& device);
VORLIX_EXPORT bool isCaseBlindMount(const std::string& mountPath);

/// The path of an item below a folder. A name that is not found as it stands is taken in the spelling that the folder
/// has; of several spellings the one that sorts first. A name that the folder does not have at all stays as it is.
VORLIX_EXPORT std::string pathInAnySpelling(std::string folder, std::initializer_list<const char*> names);

/// Those of the names that are `name` in some spelling. What is looked for is ASCII: other letters must be the same.
VORLIX_EXPORT std::vector<std::string> spellingsOf(const std::vector<std::string>& names, std::string_view name);

}  // namespace vorlix
