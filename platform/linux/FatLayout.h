// SPDX-License-Identifier: Apache-2.0
//
// Where the parts of a FAT file system lie in a run of a device's bytes.
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

/// Sectors as they are to become, by their offset in the volume: kFatSector bytes each.
using FatSectors = std::map<uint64_t, std::vector<uint8_t>>;

/// The bytes that a file system lies in. Offsets count from the start of its window.
class FatSource {
 public:
  /// `descriptor` stays the caller's and outlives this object.
  FatSource(int descriptor, Extent window) : descriptor_(descriptor), window_(window) {}

  /// The volume as it would be with `changed`, which outlives this object. Nothing is written.
  FatSource(const FatSource& medium, const FatSectors& changed) : FatSource(medium) { changed_ = &changed; }

  /// False with `errno` set: EUCLEAN for what lies outside the window, EIO where the device ends too early.
  bool read(uint8_t* to, size_t count, uint64_t offset) const;

  /// The first byte from `offset` on that may be other than zero: the holes of a sparse image are left out without
  /// reading them. `offset` itself where nothing is known, the window's size where nothing follows.
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
  uint64_t tables = 0;     ///< of the first file allocation table; the others follow it
  uint64_t tableSize = 0;  ///< of each
  uint32_t tableCount = 0;
  uint64_t rootArea = 0;     ///< of the root folder where it has a place of its own (12 and 16 bits)
  uint64_t rootAreaEnd = 0;  ///< where it ends: the first cluster
  uint32_t rootCluster = 0;  ///< with 32 bits
  uint32_t clusters = 0;     ///< numbered from kFirstCluster on
  uint64_t totalSize = 0;
  FatWidth width = FatWidth::bits12;

  bool hasCluster(uint32_t number) const { return number >= kFirstCluster && number - kFirstCluster < clusters; }
  uint64_t offsetOf(uint32_t cluster) const { return rootAreaEnd + (cluster - kFirstCluster) * clusterSize; }
};

/// Refuses (kDissentUnsupported) a file system that does not fit into its window, and sizes that no tool makes.
Refusal readFatLayout(const FatSource& source, FatLayout& layout);

/// Sum over what tells the file system from others and no change of its files touches: geometry, sizes and, where they
/// do not lie among bytes that are patched for Windows, serial and label. Absent with `errno` set where the boot sector
/// cannot be read.
std::optional<uint64_t> readFatIdentity(const FatSource& source);

/// What a FAT file system has room for, in bytes: whole clusters. The free ones are counted in the first allocation
/// table; the hint of FAT32's information sector may be wrong.
struct FatSpace {
  uint64_t total = 0;
  uint64_t free = 0;
};

/// Reads no more than the boot sector and that table. Refuses what readFatLayout() refuses.
Refusal readFatSpace(int descriptor, Extent window, FatSpace& space);

}  // namespace vorlix
