// SPDX-License-Identifier: Apache-2.0
//
// The files and folders of a FAT volume, read and checked without any other program.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Dissenters.h"
#include "FatLayout.h"
#include "FatTable.h"

namespace vorlix {

inline constexpr uint8_t kFatReadOnly = 0x01;
inline constexpr uint8_t kFatHidden = 0x02;
inline constexpr uint8_t kFatSystem = 0x04;

struct FatEntry {
  std::string path;  ///< starts with "/" at the root; UTF-8
  bool isFolder = false;
  uint8_t attributes = 0;
  uint32_t size = 0;  ///< of a file, in bytes
  uint16_t date = 0;  ///< of modification, as on the volume
  uint16_t time = 0;
  uint32_t firstCluster = 0;
  uint64_t place = 0;        ///< of its record in the folder, in bytes from the start of the volume
  std::vector<FatRun> runs;  ///< all of its clusters, in order
};

/// Where the byte at `offset` of a file or folder with these clusters lies on the volume. 0 beyond its end.
uint64_t placeIn(const FatLayout& layout, const std::vector<FatRun>& runs, uint64_t offset);

/// The time of modification in the time zone of this process, which FAT volumes leave to their readers.
int64_t modificationTime(const FatEntry& entry);

/// A volume as read() found it. Nothing of it is kept open; the descriptor stays the caller's.
class FatVolume {
 public:
  /// Reads all folders and follows every chain to its end. Refuses (kDissentUnsupported) a volume
  ///
  /// - whose allocation tables differ,
  /// - in which a cluster belongs to two files or folders, or twice to one,
  /// - with a chain that does not end, or that is longer or shorter than the file's size says,
  /// - with a name that no FAT volume may have, or twice the same name in a folder.
  ///
  /// Time and memory are bounded by what the device really holds: holes of sparse images are passed over, folders have
  /// 65536 entries at most, and all paths together 256 MiB.
  Refusal read(const FatSource& source);
  Refusal read(int descriptor, Extent window) { return read(FatSource(descriptor, window)); }

  const FatLayout& layout() const { return layout_; }
  const FatTable& table() const { return table_; }

  /// All files and folders but the root, a folder before what is in it.
  const std::vector<FatEntry>& entries() const { return entries_; }

  /// The clusters of the root folder; empty where it has a place of its own.
  const std::vector<FatRun>& rootRuns() const { return rootRuns_; }

  /// The entry at a path in any letter case (FatNames.h), one in the case that is asked for first; null if there is
  /// none.
  const FatEntry* find(const std::string& path) const;

  /// Sum over the boot area, the allocation table and every folder, names, sizes, times and first clusters included.
  /// Any change that a file system driver or tool makes shows in one of these.
  uint64_t digest() const { return digest_.value(); }
  uint64_t identity() const { return identity_; }    ///< see readFatIdentity()
  uint64_t totalSize() const { return totalSize_; }  ///< of all files, in bytes
  uint32_t freeClusters() const { return table_.freeClusters(); }

  /// Clusters that are marked as used, or as bad, and belong to no file or folder.
  uint32_t lostClusters() const { return layout_.clusters - freeClusters() - reached_; }

  /// Clusters that `bytes` take.
  uint64_t clustersFor(uint64_t bytes) const { return (bytes + layout_.clusterSize - 1) / layout_.clusterSize; }

  /// Takes a piece of a file, `offset` bytes from its start. Stops where it refuses.
  using TakePiece = std::function<Refusal(uint64_t offset, const uint8_t* bytes, size_t count)>;

  /// Hands out the content of a file in order, in pieces of at most 1 MiB. What is left out between them is zero.
  Refusal readFile(const FatSource& source, const FatEntry& entry, const TakePiece& take) const;
  Refusal readFile(int descriptor, Extent window, const FatEntry& entry, const TakePiece& take) const {
    return readFile(FatSource(descriptor, window), entry, take);
  }

 private:
  friend class FatWalk;

  FatLayout layout_;
  FatTable table_;
  FatDigest digest_;
  std::vector<FatEntry> entries_;
  std::vector<FatRun> rootRuns_;
  uint64_t identity_ = 0;
  uint64_t totalSize_ = 0;
  uint32_t reached_ = 0;
};

}  // namespace vorlix
