// SPDX-License-Identifier: Apache-2.0
/// @file
/// What the boot sector of a volume says of its size. Nothing here reads a device.
///
/// Layouts: FAT, the FAT specification of 2000, sections "Boot Sector and BPB" and "FAT Type Determination"; exFAT, the
/// published exFAT file system specification, section 3.1; NTFS, as mkntfs writes it.
#pragma once

#include <Vorlix/PartitionRecords.h>
#include <Vorlix/foundation/Export.h>

#include <cstdint>
#include <optional>

namespace vorlix {

/// The file systems that a boot sector is recognised of.
enum class VolumeFormat { ntfs, fat12, fat16, fat32, exfat };

/// Returns the name that people know: "NTFS", "FAT12", "FAT16", "FAT32" or "exFAT".
VORLIX_EXPORT const char* nameOf(VolumeFormat format);

/// What a boot sector says of its volume.
struct VolumeFacts {
  VolumeFormat format = VolumeFormat::ntfs;  ///< for FAT by the count of clusters
  uint32_t sectorSize = 0;                   ///< bytes of the volume's own sectors: a power of two, 512 to 4096
  uint64_t sectorCount = 0;  ///< of the slice that it needs: for NTFS, the second boot sector behind the volume counts
  uint32_t clusterSize = 0;  ///< bytes

  /// Bytes of the slice that the volume needs.
  uint64_t size() const { return sectorSize * sectorCount; }

  friend bool operator==(const VolumeFacts&, const VolumeFacts&) = default;  ///< compares all fields
};

/// Reads the first sector of a volume. @param start  at least its first 512 bytes.
/// @return absent for other file systems, and where the fields contradict each other or a size has no 63 bits.
VORLIX_EXPORT std::optional<VolumeFacts> volumeFacts(Bytes start);

}  // namespace vorlix
