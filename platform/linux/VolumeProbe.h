// SPDX-License-Identifier: Apache-2.0
//
// What libblkid recognises in the bytes of a device. Only reading is needed, so image files need no privilege.
#pragma once

#include <Vorlix/foundation/UUID.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/posix/Extent.h"

namespace vorlix {

/// A recognised file system.
struct VolumeFacts {
  std::string kind;                  ///< "msdos", "ntfs", "exfat", "hfs", "apfs", else libblkid's name
  std::optional<std::string> label;  ///< UTF-8
  std::optional<UUID> uuid;          ///< only where the file system has one of 128 bits; a serial number is none
};

/// The file system in a run of a device's bytes. Absent where none, or more than one, is recognised.
std::optional<VolumeFacts> probeVolume(int descriptor, Extent window);

/// The same from a record of udev's database, for devices that the user may not read.
std::optional<VolumeFacts> volumeInUdevRecord(const std::map<std::string, std::string>& record);

/// The volume kind for a file system name of libblkid or of the kernel's mount table. Absent for "fuseblk", which says
/// nothing of what is on the volume.
std::optional<std::string> volumeKindOf(const std::string& fileSystem);

}  // namespace vorlix
