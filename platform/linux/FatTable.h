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

/// A run of consecutive clusters.
struct FatRun {
  uint32_t first = 0;
  uint32_t count = 0;
};

/// A file allocation table. Only the parts that are not zero take memory.
class FatTable {
 public:
  enum class Copies { first, allEqual };

  /// Refuses with kDissentUnsupported tables that differ although they must be equal, and a table with more than 64
  /// million clusters in use: nobody mirrors such a volume, and a forged table would take all memory.
  Refusal read(const FatSource& source, const FatLayout& layout, Copies copies);

  /// Returns the entry of a cluster: 0 for a free one, else the next cluster or a mark.
  uint32_t next(uint32_t cluster) const;

  /// Returns whether a result of next() is the mark for the end of a chain.
  bool isEnd(uint32_t value) const;

  /// Returns the mark to write for the end of a chain.
  uint32_t endMark() const;

  /// The bytes of the table that contain the entry of a cluster. bytesWith() returns them with the new entry `next`;
  /// the bits of neighbouring entries stay as in `now`, the present bytes.
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
  std::vector<std::unique_ptr<Page>> pages_;  // null for a page of zeros
  size_t kept_ = 0;
};

}  // namespace vorlix
