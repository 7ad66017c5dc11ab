// SPDX-License-Identifier: Apache-2.0
//
// Layouts of the records, exported data, and the two standalone computations.
#include <Vorlix/Vorlix_vers.h>
#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <limits>

#include "tests/unit/support/DiskBytes.h"
#include "tests/unit/support/FlatFixture.h"

namespace vorlix::test {
namespace {

using testing::Each;
using testing::ElementsAre;

#define PLACE(record, field) (std::pair{offsetof(record, field), sizeof(record::field)})
using Place = std::pair<size_t, size_t>;

void expectInOrder(const std::vector<Place>& places) {
  for (size_t i = 1; i < places.size(); ++i)
    EXPECT_GE(places[i].first, places[i - 1].first + places[i - 1].second) << i;
}

// ---------------------------------------------------------------------------------------------------------- records

TEST(PartitionRecords, MBREntryHasTenFieldsInOrder) {
  const std::vector<Place> places = {PLACE(MBRPartitionEntry, flag),         PLACE(MBRPartitionEntry, start_head),
                                     PLACE(MBRPartitionEntry, start_sector), PLACE(MBRPartitionEntry, start_track),
                                     PLACE(MBRPartitionEntry, type),         PLACE(MBRPartitionEntry, end_head),
                                     PLACE(MBRPartitionEntry, end_sector),   PLACE(MBRPartitionEntry, end_track),
                                     PLACE(MBRPartitionEntry, lba),          PLACE(MBRPartitionEntry, size)};
  expectInOrder(places);
  std::vector<size_t> sizes;
  for (const Place& place : places) sizes.push_back(place.second);
  EXPECT_THAT(sizes, ElementsAre(1, 1, 1, 2, 1, 1, 1, 2, 4, 4));
}

TEST(PartitionRecords, PartitionTableHasBootCodeFourSlotsAndSignature) {
  expectInOrder({PLACE(PartitionTable, boot_code), PLACE(PartitionTable, parts), PLACE(PartitionTable, signature)});
  EXPECT_EQ(sizeof(PartitionTable::boot_code), 446U);
  EXPECT_EQ(sizeof(PartitionTable::parts), 4 * sizeof(MBRPartitionEntry));
  EXPECT_EQ(sizeof(PartitionTable::signature), 2U);
}

TEST(PartitionRecords, GPTHeaderIsThe512BytesOfItsSector) {
  EXPECT_EQ(sizeof(GPTHeader), 512U);
  EXPECT_EQ(PLACE(GPTHeader, signature), (Place{0, 8}));
  EXPECT_EQ(PLACE(GPTHeader, revision), (Place{8, 4}));
  EXPECT_EQ(PLACE(GPTHeader, header_size), (Place{12, 4}));
  EXPECT_EQ(PLACE(GPTHeader, header_crc32), (Place{16, 4}));
  EXPECT_EQ(PLACE(GPTHeader, reserved), (Place{20, 4}));
  EXPECT_EQ(PLACE(GPTHeader, my_lba), (Place{24, 8}));
  EXPECT_EQ(PLACE(GPTHeader, alternate_lba), (Place{32, 8}));
  EXPECT_EQ(PLACE(GPTHeader, first_usable_lba), (Place{40, 8}));
  EXPECT_EQ(PLACE(GPTHeader, last_usable_lba), (Place{48, 8}));
  EXPECT_EQ(PLACE(GPTHeader, disk_guid), (Place{56, 16}));
  EXPECT_EQ(PLACE(GPTHeader, partition_entry_lba), (Place{72, 8}));
  EXPECT_EQ(PLACE(GPTHeader, number_of_entries), (Place{80, 4}));
  EXPECT_EQ(PLACE(GPTHeader, size_of_entry), (Place{84, 4}));
  EXPECT_EQ(PLACE(GPTHeader, entries_crc32), (Place{88, 4}));
  EXPECT_EQ(PLACE(GPTHeader, remainder), (Place{92, 420}));
}

TEST(PartitionRecords, GPTEntryIsThe128BytesOnDiskAndTheTextOfItsType) {
  EXPECT_EQ(PLACE(GPTEntry, type_guid), (Place{0, 16}));
  EXPECT_EQ(PLACE(GPTEntry, unique_guid), (Place{16, 16}));
  EXPECT_EQ(PLACE(GPTEntry, first_lba), (Place{32, 8}));
  EXPECT_EQ(PLACE(GPTEntry, last_lba), (Place{40, 8}));
  EXPECT_EQ(PLACE(GPTEntry, attributes), (Place{48, 8}));
  EXPECT_EQ(PLACE(GPTEntry, name), (Place{56, 72}));
  EXPECT_EQ(PLACE(GPTEntry, guid_text), (Place{128, 40}));
}

// ---------------------------------------------------------------------------------------------------- exported data

TEST(ExportedData, TypeMapHasTenRowsInOrder) {
  struct Row {
    const char* guid;
    uint32_t type;
  };
  constexpr Row kRows[] = {
      {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 0x07},  // Microsoft basic data
      {"48465300-0000-11AA-AA11-00306543ECAC", 0xAF},  // HFS+
      {"7C3457EF-0000-11AA-AA11-00306543ECAC", 0xFF},  // APFS
      {"00000000-0000-0000-0000-000000000000", 0x00},  // unused
      {"52414944-0000-11AA-AA11-00306543ECAC", 0xAB},  // Apple RAID
      {"426F6F74-0000-11AA-AA11-00306543ECAC", 0xAB},  // Apple Boot
      {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", 0xEE},  // EFI System
      {"E6D6D379-F507-44C2-A23C-238F2A3DF928", 0x8E},  // Linux LVM
      {"53746F72-6167-11AA-AA11-00306543ECAC", 0xAC},  // Apple Core Storage
      {"55465300-0000-11AA-AA11-00306543ECAC", 0xA8},  // Apple UFS
  };
  static_assert(std::size(kRows) == std::size(partition_maps));
  for (size_t i = 0; i < std::size(kRows); ++i) {
    EXPECT_STREQ(partition_maps[i].guid, kRows[i].guid) << i;
    EXPECT_EQ(partition_maps[i].mbr_type, kRows[i].type) << i;
  }
  EXPECT_EQ(sizeof(PartitionTypeMap::mbr_type), 4U);
  EXPECT_EQ(sizeof(PartitionTypeMap::guid), 40U);
}

TEST(ExportedData, LookupsStopAfterNineRows) {
  EXPECT_EQ(number_of_partition_maps, 9);
}

TEST(ExportedData, VerboseFlagIsZeroInitially) {
  EXPECT_EQ(verbose_flag, 0);
  EXPECT_EQ(sizeof verbose_flag, 4U);
}

TEST(ExportedData, ToolPathBuffersHaveTheirSizesAndCanBeFilled) {
  struct Buffer {
    const char* name;
    char* bytes;
    size_t size;
    size_t expected;
  };
  const Buffer buffers[] = {
      {"mkntfs", mkntfs, sizeof mkntfs, 2048},
      {"ntfs3gpath", ntfs3gpath, sizeof ntfs3gpath, 2048},
      {"ntfscatpath", ntfscatpath, sizeof ntfscatpath, 2048},
      {"ntfsclonepath", ntfsclonepath, sizeof ntfsclonepath, 1024},
      {"ntfscppath", ntfscppath, sizeof ntfscppath, 1024},
      {"ntfsinfopath", ntfsinfopath, sizeof ntfsinfopath, 1024},
      {"ntfsresizepath", ntfsresizepath, sizeof ntfsresizepath, 1024},
  };
  for (const Buffer& buffer : buffers) {
    EXPECT_EQ(buffer.size, buffer.expected) << buffer.name;
    EXPECT_THAT(std::vector<char>(buffer.bytes, buffer.bytes + buffer.size), Each('\0')) << buffer.name;
  }
  // Fill all buffers, then check that none overlaps another.
  for (const Buffer& buffer : buffers) std::memset(buffer.bytes, buffer.name[4], buffer.size);
  for (const Buffer& buffer : buffers) {
    EXPECT_THAT(std::vector<char>(buffer.bytes, buffer.bytes + buffer.size), Each(buffer.name[4])) << buffer.name;
    std::memset(buffer.bytes, 0, buffer.size);
  }
}

TEST(ExportedData, VersionPair) {
  EXPECT_EQ(VorlixVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(VorlixVersionString), "@(#)PROGRAM:Vorlix  PROJECT:Vorlix-1\n");
}

// ----------------------------------------------------------------------------------------------------- computations

struct CHSCase {
  int32_t lba;
  uint32_t cylinder, head, sector;
};

class CalculateCHS : public testing::TestWithParam<CHSCase> {};

TEST_P(CalculateCHS, WritesCylinderHeadAndSectorInThatOrder) {
  std::array<uint32_t, 4> chs = {7, 7, 7, 7};
  calculate_chs(chs.data(), GetParam().lba);
  EXPECT_THAT(chs, ElementsAre(GetParam().cylinder, GetParam().head, GetParam().sector, 7));
}

constexpr uint32_t minus(uint32_t value) {
  return 0 - value;
}

// The geometry has 255 heads of 63 sectors, so a cylinder has 16065 sectors. Sectors count from 1.
INSTANTIATE_TEST_SUITE_P(Worked, CalculateCHS,
                         testing::Values(CHSCase{0, 0, 0, 1}, CHSCase{1, 0, 0, 2}, CHSCase{40, 0, 0, 41},
                                         CHSCase{62, 0, 0, 63}, CHSCase{63, 0, 1, 1},
                                         CHSCase{2048, 0, 32, 33},      // 2048 = 32 * 63 + 32
                                         CHSCase{16064, 0, 254, 63},    // the last of cylinder 0
                                         CHSCase{16065, 1, 0, 1},       //
                                         CHSCase{409639, 25, 127, 14},  // 25 * 16065 + 8014, 8014 = 127 * 63 + 13
                                         CHSCase{409640, 25, 127, 15},  //
                                         CHSCase{16450559, 1023, 254, 63}));
// From LBA 1024 * 16065 on, the cylinder stays 1023 and head and sector continue.
INSTANTIATE_TEST_SUITE_P(Clamped, CalculateCHS,
                         testing::Values(CHSCase{16450560, 1023, 0, 1}, CHSCase{16450561, 1023, 0, 2},
                                         CHSCase{16450560 + 63, 1023, 1, 1}, CHSCase{16466624, 1023, 254, 63},
                                         CHSCase{16466625, 1023, 0, 1},
                                         // 2147483647 = 133674 * 16065 + 10837, 10837 = 172 * 63 + 1
                                         CHSCase{2147483647, 1023, 172, 2}));
// Negative numbers truncate toward zero and are never clamped.
INSTANTIATE_TEST_SUITE_P(Negative, CalculateCHS,
                         testing::Values(CHSCase{-1, 0, 0, 0},             // sector -1 + 1
                                         CHSCase{-2, 0, 0, minus(1)},      //
                                         CHSCase{-63, 0, minus(1), 1},     //
                                         CHSCase{-16065, minus(1), 0, 1},  //
                                         CHSCase{-16450560, minus(1024), 0, 1},
                                         // -2147483648 = -133674 * 16065 - 10838, 10838 = 172 * 63 + 2
                                         CHSCase{std::numeric_limits<int32_t>::min(), minus(133674), minus(172),
                                                 minus(1)}));

TEST(ConvertToGUID, PrintsMixedEndianBytesAsUpperCaseGroups) {
  const GUIDBytes bytes = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                           0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  char text[40];
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(ConvertToGUID(bytes.data(), text), 36);
  EXPECT_STREQ(text, "00112233-4455-6677-8899-AABBCCDDEEFF");
  EXPECT_EQ(std::string(text + 37, 3), "###");  // 36 characters and a NUL
}

TEST(ConvertToGUID, FormatsTheEFISystemType) {
  char text[37];
  EXPECT_EQ(ConvertToGUID(kEFISystemType.data(), text), 36);
  EXPECT_STREQ(text, "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
}

TEST(ConvertToGUID, FormatsZeroBytesAsTheUnusedType) {
  char text[37];
  EXPECT_EQ(ConvertToGUID(kUnusedType.data(), text), 36);
  EXPECT_STREQ(text, "00000000-0000-0000-0000-000000000000");
}

}  // namespace
}  // namespace vorlix::test
