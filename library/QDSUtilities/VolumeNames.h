// SPDX-License-Identifier: Apache-2.0
//
// Names on volumes of Windows, which does not tell upper case from lower there. Some drivers for NTFS, and the folder
// that a FAT volume is mirrored in, do: what is looked for under the usual name may stand there in another spelling.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

/// Whether a kind or type of volume, as disk arbitration and listings name them, is one of Windows' own: NTFS, FAT,
/// exFAT.
bool isCaseBlind(std::string_view fileSystem);

/// The same of the volume on a device, and of the volume that is mounted at a path. False where nothing is known.
bool isCaseBlindDevice(const std::string& device);
bool isCaseBlindMount(const std::string& mountPath);

/// The path of an item below a folder. A name that is not found as it stands is taken in the spelling that the folder
/// has; one that the folder does not have at all stays as it is.
std::string pathInAnySpelling(std::string folder, std::initializer_list<const char*> names);

/// Those of the names that are `name` in some spelling.
std::vector<std::string> spellingsOf(const std::vector<std::string>& names, std::string_view name);

}  // namespace vorlix
