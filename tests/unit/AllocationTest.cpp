// SPDX-License-Identifier: Apache-2.0
//
// Limits of <Vorlix/Allocation.h> that volumes made by tools do not reach; tests/integration/test_allocation.py
// compares with other tools.
#include <Vorlix/Allocation.h>
#include <Vorlix/foundation/LittleEndian.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace vorlix {
namespace {

// A FAT32 volume of which nothing is stored: every second cluster is in use.
class ScatteredFAT {
 public:
  static constexpr uint64_t kClusters = uint64_t{3} << 20;
  static constexpr uint64_t kTableSectors = (kClusters + 2) * 4 / 512 + 1;
  static constexpr uint64_t kSectors = 32 + kTableSectors + kClusters;

  ScatteredFAT() {
    boot_ = {0xEB, 0x58, 0x90};
    putLittleEndian(&boot_[11], 2, 512);
    boot_[13] = 1;                                  // sectors of a cluster
    putLittleEndian(&boot_[14], 2, 32);             // reserved sectors
    boot_[16] = 1;                                  // tables
    boot_[21] = 0xF8;                               // medium
    putLittleEndian(&boot_[32], 4, kSectors);       // sectors in all
    putLittleEndian(&boot_[36], 4, kTableSectors);  // sectors of a table
    putLittleEndian(&boot_[44], 4, 2);              // cluster of the root folder
    putLittleEndian(&boot_[510], 2, 0xAA55);
  }

  size_t read(uint64_t offset, std::span<uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = byteAt(offset + i);
    return bytes.size();
  }

 private:
  uint8_t byteAt(uint64_t offset) const {
    constexpr uint64_t kTable = 32 * 512;
    if (offset < 512) return boot_[offset];
    if (offset < kTable || offset >= kTable + kTableSectors * 512) return 0;
    const uint64_t number = (offset - kTable) / 4;
    const uint32_t entry = number == 0 ? 0x0FFFFFF8 : number == 1 || number % 2 == 0 ? 0x0FFFFFFF : 0;
    return static_cast<uint8_t>(entry >> (offset - kTable) % 4 * 8);
  }

  std::array<uint8_t, 512> boot_ = {};
};

TEST(Allocation, SmallGapsCloseWhereThereAreTooMany) {
  ScatteredFAT volume;
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) { return volume.read(offset, bytes); };
  const Allocation found = readAllocation(read, ScatteredFAT::kSectors * 512);
  EXPECT_EQ(found.doubt, "");
  EXPECT_EQ(found.fileSystem, "fat32");
  EXPECT_LE(found.used.size(), kMostUsedRanges);
  // All that is in use is kept: every even cluster, numbered from 2.
  const uint64_t data = (32 + ScatteredFAT::kTableSectors) * 512;
  EXPECT_TRUE(std::is_sorted(found.used.begin(), found.used.end(),
                             [](const ByteRange& one, const ByteRange& other) { return one.end() < other.offset; }));
  for (const uint64_t cluster : {uint64_t{2}, uint64_t{1000}, ScatteredFAT::kClusters}) {
    const uint64_t offset = data + (cluster - 2) * 512;
    EXPECT_TRUE(std::any_of(found.used.begin(), found.used.end(), [&](const ByteRange& range) {
      return range.offset <= offset && offset + 512 <= range.end();
    })) << cluster;
  }
}

TEST(Allocation, BytesThatCannotBeReadAreADoubt) {
  ScatteredFAT volume;
  size_t calls = 0;
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    return ++calls == 3 ? size_t{0} : volume.read(offset, bytes);
  };
  const Allocation found = readAllocation(read, ScatteredFAT::kSectors * 512);
  EXPECT_NE(found.doubt.find("cannot be read"), std::string::npos);
  EXPECT_EQ(found.used, (std::vector<ByteRange>{{0, ScatteredFAT::kSectors * 512}}));
}

}  // namespace
}  // namespace vorlix
