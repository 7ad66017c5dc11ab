// SPDX-License-Identifier: Apache-2.0
//
// The file system that libblkid recognises on a device. Reading is enough, so image files need no privilege.
#pragma once

#include <Vorlix/foundation/UUID.h>

#include <map>
#include <optional>
#include <string>

#include "platform/posix/Extent.h"

namespace vorlix {

/// A recognised file system.
struct ProbedVolume {
  std::string kind;                  ///< "msdos", "ntfs", "exfat", "hfs", "apfs", else libblkid's name
  std::optional<std::string> label;  ///< UTF-8
  std::optional<UUID> uuid;          ///< absent if the file system only has a serial number
};

/// Returns the file system in a range of a device's bytes. Absent if none or more than one is recognised.
std::optional<ProbedVolume> probeVolume(int descriptor, Extent window);

/// Returns the same from a record of udev's database, for devices that the user cannot read.
std::optional<ProbedVolume> volumeInUdevRecord(const std::map<std::string, std::string>& record);

/// Returns the volume kind for a file system name of libblkid or of the kernel's mount table. Absent for "fuseblk",
/// which does not say what is on the volume.
std::optional<std::string> volumeKindOf(const std::string& fileSystem);

}  // namespace vorlix
