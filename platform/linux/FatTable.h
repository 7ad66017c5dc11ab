// SPDX-License-Identifier: Apache-2.0
//
// The file allocation table of a FAT file system.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "FatDigest.h"
#include "FatLayout.h"

namespace vorlix {

/// A run of clusters that follow each other on the volume.
struct FatRun {
  uint32_t first = 0;
  uint32_t count = 0;
};

/// Takes as much memory as the table has parts that are not zero.
class FatTable {
 public:
  enum class Copies { first, allEqual };

  /// Refuses (kDissentUnsupported) tables that differ where they should be equal, and one of more than 64 million
  /// clusters in use: nobody mirrors such a volume, and a forged one would take all memory.
  Refusal read(const FatSource& source, const FatLayout& layout, Copies copies);

  /// What the table says of a cluster of the volume: 0 for a free one, else the next one, or a mark.
  uint32_t next(uint32_t cluster) const;

  /// Whether next() says that the chain ends.
  bool isEnd(uint32_t value) const;

  /// The mark of a chain's end that is written.
  uint32_t endMark() const;

  /// The bytes of the table in which what it says of a cluster is written, with `next` in them. What these bytes say of
  /// its neighbours stays as `now` has it, the bytes as they stand.
  struct Location {
    uint64_t offset = 0;  ///< from the start of a table
    size_t count = 0;
  };
  Location locationOf(uint32_t cluster) const;
  std::array<uint8_t, 4> bytesWith(uint32_t cluster, uint32_t next, const std::array<uint8_t, 4>& now) const;

  uint32_t freeClusters() const;

  void addTo(FatDigest& digest) const;

 private:
  static constexpr size_t kPage = 4096;
  using Page = std::array<uint8_t, kPage>;

  void keep(uint64_t at, const uint8_t* bytes, size_t count);
  uint8_t byteAt(uint64_t offset) const;
  uint32_t value(uint64_t offset, size_t count) const;

  FatWidth width_ = FatWidth::bits12;
  uint32_t clusters_ = 0;
  std::vector<std::unique_ptr<Page>> pages_;  // null where all is zero
  size_t kept_ = 0;
};

}  // namespace vorlix
