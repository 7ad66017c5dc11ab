// SPDX-License-Identifier: Apache-2.0
//
// Reads the allocation of an arbitrary volume. The input is a sparse volume: its size in sectors (four bytes), then
// records of a sector number (four bytes) and 512 bytes. What no record gives is zeros, and a record beyond the end is
// left out.
#include <Vorlix/Allocation.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "FuzzSupport.h"

namespace {

constexpr size_t kLargestInput = size_t{1} << 20;
constexpr size_t kSector = 512;
constexpr size_t kRecord = 4 + kSector;
constexpr uint64_t kMostRead = uint64_t{1} << 32;  // bytes

struct SparseVolume {
  uint64_t size = 0;
  std::map<uint64_t, const uint8_t*> sectors;
  mutable uint64_t read = 0;  // bytes that were asked for

  size_t operator()(uint64_t offset, std::span<uint8_t> bytes) const {
    FUZZ_CHECK(offset <= size && bytes.size() <= size - offset);
    FUZZ_CHECK(bytes.size() <= size_t{1} << 20);
    read += bytes.size();
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    for (auto sector = sectors.lower_bound(offset / kSector); sector != sectors.end(); ++sector) {
      const uint64_t start = sector->first * kSector;
      if (start >= offset + bytes.size()) break;
      const uint64_t from = std::max(start, offset);
      const uint64_t end = std::min(start + kSector, offset + bytes.size());
      std::memcpy(bytes.data() + (from - offset), sector->second + (from - start), end - from);
    }
    return bytes.size();
  }
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput || size < 4) return 0;
  SparseVolume volume;
  volume.size = fuzz::littleEndian(data, 4) * kSector;
  for (size_t at = 4; at + kRecord <= size; at += kRecord) {
    const uint64_t number = fuzz::littleEndian(data + at, 4);
    if (number < volume.size / kSector) volume.sectors[number] = data + at + 4;
  }
  const vorlix::DiskReader read = [&](uint64_t offset, std::span<uint8_t> bytes) { return volume(offset, bytes); };
  const vorlix::Allocation found = vorlix::readAllocation(read, volume.size);

  FUZZ_CHECK(volume.read <= kMostRead);
  FUZZ_CHECK(found.used.size() <= vorlix::kMostUsedRanges);
  uint64_t end = 0;
  for (const vorlix::ByteRange& range : found.used) {
    FUZZ_CHECK(range.size > 0 && range.offset <= volume.size && range.size <= volume.size - range.offset);
    FUZZ_CHECK(range.offset == 0 || range.offset > end);
    end = range.end();
  }
  if (found.doubt.empty()) {
    // The boot sector, and a file system of a known kind.
    FUZZ_CHECK(!found.fileSystem.empty() && found.clusterSize != 0);
    FUZZ_CHECK(!found.used.empty() && found.used.front().offset == 0 && found.used.front().size >= kSector);
  } else {
    FUZZ_CHECK(found.used.size() == (volume.size == 0 ? 0 : 1) && end == volume.size);
  }
  return 0;
}
