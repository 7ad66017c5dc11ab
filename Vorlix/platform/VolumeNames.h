// SPDX-License-Identifier: Apache-2.0
/// @file
/// Names on volumes of Windows, which does not distinguish upper and lower case.
///
/// Some NTFS drivers, and the folder of a mirrored FAT volume, do distinguish them, so a file may have another spelling
/// than the usual one there. The functions use the ports Files and DiskArbitration.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

/// Returns whether a kind or type of volume, as in descriptions and listings, is NTFS, FAT or exFAT.
VORLIX_EXPORT bool isCaseBlind(std::string_view fileSystem);

/// @{
/// The same for the volume on a device and for the volume that is mounted at a path. False if its kind is unknown.
VORLIX_EXPORT bool isCaseBlindDevice(const std::string& device);
VORLIX_EXPORT bool isCaseBlindMount(const std::string& mountPath);
/// @}

/// Returns the path of an item below a folder. If a folder does not have a name in this spelling, its own spelling is
/// used, the first in sorting order if there are several. A name that it has in no spelling is used as it is.
VORLIX_EXPORT std::string pathInAnySpelling(std::string folder, std::initializer_list<const char*> names);

/// Returns those of the names that differ from `name` at most in the case of ASCII letters.
VORLIX_EXPORT std::vector<std::string> spellingsOf(const std::vector<std::string>& names, std::string_view name);

}  // namespace vorlix
