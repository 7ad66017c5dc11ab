// SPDX-License-Identifier: Apache-2.0
#include "VolumeBytes.h"

#include <algorithm>
#include <bit>
#include <iterator>

namespace vorlix {

void VolumeBytes::read(uint64_t offset, std::span<uint8_t> bytes) const {
  if (offset > size_ || bytes.size() > size_ - offset) {
    throw AllocationDoubt("a structure of the file system lies outside the volume");
  }
  if (read_(offset, bytes) != bytes.size()) {
    throw AllocationDoubt("the file system cannot be read at byte " + std::to_string(offset));
  }
}

std::vector<uint8_t> VolumeBytes::read(uint64_t offset, size_t count) const {
  std::vector<uint8_t> bytes(count);
  read(offset, bytes);
  return bytes;
}

void UsedRanges::add(uint64_t offset, uint64_t size) {
  if (size == 0) return;
  if (!ranges_.empty() && offset < ranges_.back().end() + smallestGap_) {
    ranges_.back().size = std::max(ranges_.back().end(), offset + size) - ranges_.back().offset;
    return;
  }
  if (ranges_.size() >= most_) {
    closeGaps();
    add(offset, size);
    return;
  }
  ranges_.push_back({offset, size});
}

void UsedRanges::closeGaps() {
  constexpr uint64_t kFirstStep = 4096;
  while (ranges_.size() > most_ / 2) {
    smallestGap_ = std::max(smallestGap_ * 2, kFirstStep);
    size_t kept = 0;
    for (size_t i = 1; i < ranges_.size(); ++i) {
      if (ranges_[i].offset < ranges_[kept].end() + smallestGap_) {
        ranges_[kept].size = ranges_[i].end() - ranges_[kept].offset;
      } else {
        ranges_[++kept] = ranges_[i];
      }
    }
    ranges_.resize(kept + 1);
  }
}

void addBits(std::span<const uint8_t> bits, uint64_t count, uint64_t first, uint64_t clusterSize, UsedRanges& used) {
  uint64_t run = 0;  // of set bits that end before `bit`
  for (uint64_t bit = 0; bit < count;) {
    const uint8_t byte = bits[bit / 8];
    if (bit % 8 == 0 && count - bit >= 8 && (byte == 0xFF || (byte == 0 && run == 0))) {
      if (byte == 0xFF) run += 8;
      bit += 8;
      continue;
    }
    if ((byte >> bit % 8 & 1) != 0) {
      ++run;
    } else if (run != 0) {
      used.add(first + (bit - run) * clusterSize, run * clusterSize);
      run = 0;
    }
    ++bit;
  }
  used.add(first + (count - run) * clusterSize, run * clusterSize);
}

bool isCovered(const std::vector<ByteRange>& ranges, const ByteRange& part) {
  const auto next = std::upper_bound(ranges.begin(), ranges.end(), part.offset,
                                     [](uint64_t offset, const ByteRange& range) { return offset < range.offset; });
  return next != ranges.begin() && std::prev(next)->end() >= part.end();
}

bool isPowerOfTwo(uint64_t number) {
  return std::has_single_bit(number);
}

}  // namespace vorlix
