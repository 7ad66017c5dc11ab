// SPDX-License-Identifier: Apache-2.0
//
// The files and folders of a FAT volume, read and checked without other programs.
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
  uint16_t date = 0;  ///< of modification, in the format of the volume
  uint16_t time = 0;
  uint32_t firstCluster = 0;
  uint64_t place = 0;        ///< offset of its record in the folder from the start of the volume, in bytes
  std::vector<FatRun> runs;  ///< all its clusters, in order
};

/// Returns the place on the volume of the byte at `offset` of a file or folder with these clusters. 0 beyond its end.
uint64_t placeIn(const FatLayout& layout, const std::vector<FatRun>& runs, uint64_t offset);

/// Returns the time of modification. FAT stores local time without a zone; the zone of this process is used.
int64_t modificationTime(const FatEntry& entry);

/// A volume as read() found it. The descriptor belongs to the caller; this object keeps nothing open.
class FatVolume {
 public:
  /// Reads all folders and follows every chain to its end. Refuses with kDissentUnsupported a volume
  ///
  /// - whose allocation tables differ,
  /// - in which a cluster belongs to two files or folders, or twice to one,
  /// - with a chain that does not end, or whose length does not match the size of the file,
  /// - with an invalid name, or with the same name twice in a folder.
  ///
  /// What the device really contains limits time and memory: holes of sparse images are skipped, folders have at most
  /// 65536 entries, and all paths together at most 256 MiB.
  Refusal read(const FatSource& source);
  Refusal read(int descriptor, Extent window) { return read(FatSource(descriptor, window)); }

  const FatLayout& layout() const { return layout_; }
  const FatTable& table() const { return table_; }

  /// Returns all files and folders except the root. A folder comes before its items.
  const std::vector<FatEntry>& entries() const { return entries_; }

  /// Returns the clusters of the root folder; empty if it is outside the clusters.
  const std::vector<FatRun>& rootRuns() const { return rootRuns_; }

  /// Returns the entry at a path in any letter case (FatNames.h), preferably in the given case; null if there is none.
  const FatEntry* find(const std::string& path) const;

  /// Returns a checksum of the boot area, the allocation table and all folders, which include names, sizes, times and
  /// first clusters. Every change by a file system driver or tool changes one of these.
  uint64_t digest() const { return digest_.value(); }
  uint64_t identity() const { return identity_; }    ///< see readFatIdentity()
  uint64_t totalSize() const { return totalSize_; }  ///< of all files, in bytes
  uint32_t freeClusters() const { return table_.freeClusters(); }

  /// Returns the number of clusters that are marked as used or bad and belong to no file or folder.
  uint32_t lostClusters() const { return layout_.clusters - freeClusters() - reached_; }

  /// Returns the number of clusters for `bytes`.
  uint64_t clustersFor(uint64_t bytes) const { return (bytes + layout_.clusterSize - 1) / layout_.clusterSize; }

  /// Receives a piece of a file, `offset` bytes from its start. A refusal ends the reading.
  using TakePiece = std::function<Refusal(uint64_t offset, const uint8_t* bytes, size_t count)>;

  /// Reads a file in order, in pieces of at most kFatPiece bytes. Bytes between pieces are zero.
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
