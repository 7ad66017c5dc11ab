// SPDX-License-Identifier: Apache-2.0
//
// What the readers of all file systems share.
#pragma once

#include <Vorlix/Allocation.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vorlix {

/// Ends a reader: everything counts as in use.
class AllocationDoubt : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The file system ends behind the volume's end.
class CutOff : public AllocationDoubt {
 public:
  explicit CutOff(const std::string& fileSystem)
      : AllocationDoubt("its " + fileSystem + " file system is larger than the volume") {}
};

/// The volume's bytes. Functions throw AllocationDoubt for what cannot be read or lies outside.
class VolumeBytes {
 public:
  VolumeBytes(const DiskReader& read, uint64_t size) : read_(read), size_(size) {}

  uint64_t size() const { return size_; }
  void read(uint64_t offset, std::span<uint8_t> bytes) const;
  std::vector<uint8_t> read(uint64_t offset, size_t count) const;

 private:
  const DiskReader& read_;
  uint64_t size_;
};

/// The largest piece that is read at a time.
inline constexpr size_t kLargestRead = size_t{1} << 20;

/// Collects ranges that come in ascending order.
class UsedRanges {
 public:
  explicit UsedRanges(size_t most = kMostUsedRanges) : most_(most) {}

  void add(uint64_t offset, uint64_t size);
  std::vector<ByteRange> take() { return std::move(ranges_); }

 private:
  void closeGaps();

  size_t most_;
  uint64_t smallestGap_ = 1;  // smaller ones are closed
  std::vector<ByteRange> ranges_;
};

/// Adds the clusters of a run of bitmap bits, the lowest bit of a byte first. @param first  byte offset of the first
/// bit's cluster.
void addBits(std::span<const uint8_t> bits, uint64_t count, uint64_t first, uint64_t clusterSize, UsedRanges& used);

/// Whether one of the ranges, which are in ascending order, contains all of `part`.
bool isCovered(const std::vector<ByteRange>& ranges, const ByteRange& part);

bool isPowerOfTwo(uint64_t number);

/// Each reads one file system. `result` has the whole volume's facts where they return; they throw AllocationDoubt.
void readNTFSAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result);
void readFATAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result);
void readExFATAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result);

/// Whether a boot sector is of FAT. FAT has no name of its own in a place that all writers fill.
bool looksLikeFAT(std::span<const uint8_t> boot);

}  // namespace vorlix
