// SPDX-License-Identifier: Apache-2.0
/// @file
/// Which bytes of a volume are in use, as its file system says: NTFS by `$Bitmap`, FAT by its file allocation table,
/// exFAT by its allocation bitmap. Nothing is written, and nothing but `read` is asked, so any bytes can be examined.
///
/// Layouts: FAT: "FAT: General Overview of On-Disk Format", version 1.03. exFAT: "exFAT file system specification",
/// revision 1.00. NTFS: the Linux-NTFS project's documentation, and what ntfsinfo prints of volumes by mkntfs.
#pragma once

#include <Vorlix/GPTCheck.h>
#include <Vorlix/foundation/Export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vorlix {

/// A run of bytes of a volume.
struct ByteRange {
  uint64_t offset = 0;  ///< from the start of the volume
  uint64_t size = 0;    ///< never 0 in a list

  uint64_t end() const { return offset + size; }                         ///< the byte behind it
  friend bool operator==(const ByteRange&, const ByteRange&) = default;  ///< compares all fields
};

/// What is in use.
struct VORLIX_EXPORT Allocation {
  /// "ntfs", "fat12", "fat16", "fat32" or "exfat"; empty where the boot sector is of none of them.
  std::string fileSystem;
  uint32_t clusterSize = 0;  ///< bytes; 0 where it is not known

  /// In ascending order, without overlaps and without neighbours that touch, all inside the volume. Where `doubt` is
  /// not empty, one range: the whole volume.
  std::vector<ByteRange> used;

  /// Why everything counts as in use; empty where the file system's own record could be taken. For people: "the volume
  /// was not unmounted cleanly".
  std::string doubt;

  /// The `doubt` is that the file system is larger than the volume: the disk or image was truncated.
  bool isCutOff = false;

  /// Returns the sum of the sizes in `used`.
  uint64_t usedBytes() const;
};

/// The most ranges that an allocation has. A volume with more gaps than that gets the smaller ones counted as in use.
inline constexpr size_t kMostUsedRanges = size_t{1} << 20;

/// Reads the allocation of a volume.
///
/// Always in use are the areas that no cluster covers: boot sectors, tables, and what follows the last cluster up to
/// the volume's end, where NTFS has the copy of its boot sector. Bad clusters of FAT count as free.
///
/// Everything is in use for any doubt:
/// - a file system of another kind, or larger than the volume;
/// - a damaged boot sector or structure, two copies of a FAT that differ, or a bitmap that does not count its own
///   clusters as in use;
/// - a volume that was not unmounted cleanly: NTFS by its dirty flag or its journal, FAT and exFAT by their dirty
/// flags;
/// - a volume with a hibernated Windows (NTFS, `hiberfil.sys`): that Windows goes on with what it had in memory;
/// - bytes that cannot be read.
///
/// Time and memory are bounded: each structure is read once or twice, in pieces of at most 1 MiB, and the result has at
/// most kMostUsedRanges ranges.
///
/// @param read  reads bytes of the volume; fewer than asked for count as unreadable.
/// @param size  of the volume in bytes.
VORLIX_EXPORT Allocation readAllocation(const DiskReader& read, uint64_t size);

}  // namespace vorlix
