// SPDX-License-Identifier: Apache-2.0
//
// Where the parts of a FAT file system are in a range of a device's bytes.
//
// Source of the layout: Microsoft, "FAT: General Overview of On-Disk Format", version 1.03 (fatgen103).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "Dissenters.h"
#include "platform/posix/Extent.h"

namespace vorlix {

inline constexpr uint32_t kFirstCluster = 2;

inline constexpr size_t kFatSector = 512;         ///< the unit of changes; clusters are whole sectors
inline constexpr size_t kFatPiece = 1024 * 1024;  ///< bytes that are read at once

/// The new content of sectors, kFatSector bytes each, by offset in the volume.
using FatSectors = std::map<uint64_t, std::vector<uint8_t>>;

/// The bytes of a file system. Offsets count from the start of its window.
class FatSource {
 public:
  /// `descriptor` belongs to the caller and must outlive this object.
  FatSource(int descriptor, Extent window) : descriptor_(descriptor), window_(window) {}

  /// Shows the volume as it would be with the sectors in `changed`, which must outlive this object. Nothing is written.
  FatSource(const FatSource& medium, const FatSectors& changed) : FatSource(medium) { changed_ = &changed; }

  /// @return false with `errno` set: EUCLEAN for bytes outside the window, EIO if the device ends too early.
  bool read(uint8_t* to, size_t count, uint64_t offset) const;

  /// Returns the offset of the first byte at or after `offset` that may not be zero. This skips the holes of a sparse
  /// image without reading them. Returns `offset` if nothing is known, and the window's size if only zeros follow.
  uint64_t nextData(uint64_t offset) const;

  uint64_t size() const { return window_.size; }

 private:
  void putChanged(uint8_t* to, size_t count, uint64_t offset) const;

  int descriptor_;
  Extent window_;
  const FatSectors* changed_ = nullptr;
};

enum class FatWidth { bits12, bits16, bits32 };

/// Offsets and sizes are in bytes.
struct FatLayout {
  uint64_t clusterSize = 0;
  uint64_t tables = 0;     ///< the first file allocation table; the others follow it
  uint64_t tableSize = 0;  ///< of each table
  uint32_t tableCount = 0;
  uint64_t rootArea = 0;     ///< the root folder, if it is outside the clusters (12 and 16 bits)
  uint64_t rootAreaEnd = 0;  ///< the end of the root folder: the first cluster
  uint32_t rootCluster = 0;  ///< with 32 bits
  uint32_t clusters = 0;     ///< their number; the first has the number kFirstCluster
  uint64_t totalSize = 0;
  FatWidth width = FatWidth::bits12;

  bool hasCluster(uint32_t number) const { return number >= kFirstCluster && number - kFirstCluster < clusters; }
  uint64_t offsetOf(uint32_t cluster) const { return rootAreaEnd + (cluster - kFirstCluster) * clusterSize; }
};

/// Refuses with kDissentUnsupported a file system that does not fit into its window, and sizes that no tool uses.
Refusal readFatLayout(const FatSource& source, FatLayout& layout);

/// Returns a checksum that distinguishes the file system from others and does not change with its files: of geometry,
/// sizes and, unless they are among the bytes that are patched for Windows, serial and label. Absent with `errno` set
/// if the boot sector cannot be read.
std::optional<uint64_t> readFatIdentity(const FatSource& source);

/// The capacity of a FAT file system in bytes, in whole clusters. Free clusters are counted in the first allocation
/// table, because the hint in FAT32's information sector may be wrong.
struct FatSpace {
  uint64_t total = 0;
  uint64_t free = 0;
};

/// Reads only the boot sector and that table. Refuses what readFatLayout() refuses.
Refusal readFatSpace(int descriptor, Extent window, FatSpace& space);

}  // namespace vorlix
