// SPDX-License-Identifier: Apache-2.0
//
// Reading the block size, sector 0 and the GPT header from a device or a stream.
#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>

#include "tests/unit/support/DiskBytes.h"
#include "tests/unit/support/FlatFixture.h"

namespace vorlix::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// ------------------------------------------------------------------------------------------------------ block size

using GetBlockSize = FlatTest;

TEST_F(GetBlockSize, ComesFromDiskArbitration) {
  for (const uint32_t size : {512U, 2048U, 4096U}) {
    forgetLog();
    machine.addDisk("disk0", 1 << 20, size);
    EXPECT_EQ(getblocksize("disk0"), size);
    EXPECT_EQ(log(), "Getting block size for device disk0Found blockSize: " + std::to_string(size));
  }
}

TEST_F(GetBlockSize, AcceptsADevicePathAndReadsNothingElse) {
  machine.addDisk("disk0", 1 << 20, 4096);
  EXPECT_EQ(getblocksize("/dev/disk0"), 4096U);
  EXPECT_EQ(log(), "Getting block size for device /dev/disk0Found blockSize: 4096");
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "describe disk0", "session close"));
}

constexpr const char* kUnknownSize =
    "Getting block size for device disk0"
    "Error getting number. Unknown volume size line:215"
    "Found blockSize: 0";

TEST_F(GetBlockSize, IsZeroIfTheDescriptionLacksIt) {
  machine.addDisk("disk0", 1 << 20, 512);
  machine.hideBlockSize("disk0");
  EXPECT_EQ(getblocksize("disk0"), 0U);
  EXPECT_EQ(log(), kUnknownSize);
}

TEST_F(GetBlockSize, IsZeroForAnUnknownDisk) {
  EXPECT_EQ(getblocksize("disk0"), 0U);
  EXPECT_EQ(log(), kUnknownSize);
}

TEST_F(GetBlockSize, IsZeroIfDiskArbitrationIsUnreachable) {
  machine.addDisk("disk0", 1 << 20, 512);
  machine.refuseSessions();
  EXPECT_EQ(getblocksize("disk0"), 0U);
  EXPECT_EQ(log(), kUnknownSize);
}

// ------------------------------------------------------------------------------------------------------ sector 0

// Boot code 01 02 03 ... (byte i is i + 1, modulo 256), then four slots.
ByteVector sectorZero() {
  ByteVector sector(446);
  for (size_t i = 0; i < sector.size(); ++i) sector[i] = static_cast<uint8_t>(i + 1);
  put(sector, 446,
      {0x80, 0x01, 0xC1, 0x02,    // active; head 1, sector 1, cylinder 0x300 + 0x02 = 770
       0xEE, 0xFE, 0xFF, 0xFF,    // type; head 254, sector 63, cylinder 0x300 + 0xFF = 1023
       0x01, 0x00, 0x00, 0x00,    // first LBA 1
       0x27, 0x40, 0x06, 0x00});  // 0x00064027 = 409639 sectors
  put(sector, 462,
      {0x00, 0x7F, 0x0F, 0x19,    // head 127, sector 15, cylinder 0x19 = 25
       0x07, 0x20, 0x45, 0x10,    // head 32, sector 5, cylinder 0x100 + 0x10 = 272
       0x28, 0x40, 0x06, 0x00,    // 409640
       0xFF, 0xFF, 0xFF, 0xFF});  // 4294967295
  put(sector, 478,
      {0x81, 0xFF, 0x80, 0x00,       // not exactly 0x80; head 255, sector 0, cylinder 0x200 + 0 = 512
       0xAF, 0x00, 0x3F, 0x00,       // head 0, sector 63, cylinder 0
       0x44, 0x33, 0x22, 0x11,       // 0x11223344
       0xDD, 0xCC, 0xBB, 0xAA});     // 0xAABBCCDD
  put(sector, 494, ByteVector(16));  // an empty slot
  put(sector, 510, {0x55, 0xAA});
  return sector;
}

constexpr uint8_t kFilled = 0xA5;

PartitionTable oldTable() {
  PartitionTable table;
  std::memset(&table, kFilled, sizeof table);
  return table;
}

using ReadMBR = FlatTest;

TEST_F(ReadMBR, DecodesBootCodeSlotsAndSignature) {
  const Stream stream = streamOf(sectorZero());
  PartitionTable table = oldTable();
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  const ByteVector expected = sectorZero();
  EXPECT_TRUE(std::equal(table.boot_code, table.boot_code + 446, expected.begin()));
  EXPECT_THAT(fields(table.parts[0]), ElementsAre(0x80, 1, 1, 770, 0xEE, 254, 63, 1023, 1, 409639));
  EXPECT_THAT(fields(table.parts[1]), ElementsAre(0x00, 127, 15, 25, 0x07, 32, 5, 272, 409640, 4294967295));
  EXPECT_THAT(fields(table.parts[2]), ElementsAre(0x81, 255, 0, 512, 0xAF, 0, 63, 0, 0x11223344, 0xAABBCCDD));
  EXPECT_EQ(fields(table.parts[3]), kEmptySlot);
  EXPECT_EQ(table.signature, 0xAA55);
  EXPECT_EQ(active, 1U);
  EXPECT_EQ(log(), "");
}

TEST_F(ReadMBR, LeavesTheLeadingWordUnchanged) {
  const Stream stream = streamOf(sectorZero());
  PartitionTable table = oldTable();
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  EXPECT_EQ(static_cast<uint32_t>(table.reserved), 0xA5A5A5A5);
}

TEST_F(ReadMBR, ReadsFromTheStreamsPositionAndOnlyTheSector) {
  const Stream stream = streamOf(joined({ByteVector(100, 0x11), sectorZero(), ByteVector(700, 0x22)}));
  ASSERT_EQ(std::fseek(stream.get(), 100, SEEK_SET), 0);
  PartitionTable table = oldTable();
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  EXPECT_EQ(table.boot_code[0], 1);
  EXPECT_EQ(table.signature, 0xAA55);
  EXPECT_EQ(std::ftell(stream.get()), 612);
}

TEST_F(ReadMBR, SignatureComesFromTheDisk) {
  ByteVector sector = sectorZero();
  put(sector, 510, {0x34, 0x12});
  const Stream stream = streamOf(sector);
  PartitionTable table = oldTable();
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  EXPECT_EQ(table.signature, 0x1234);
}

TEST_F(ReadMBR, ActiveSlotIsTheLastOneWhoseFlagIsExactly0x80) {
  struct Case {
    std::array<uint8_t, 4> flags;
    uint32_t active;  // 77 is the caller's initial value
  };
  constexpr Case kCases[] = {
      {{0x00, 0x00, 0x00, 0x00}, 77}, {{0x80, 0x00, 0x00, 0x00}, 1}, {{0x00, 0x80, 0x00, 0x00}, 2},
      {{0x00, 0x00, 0x80, 0x00}, 3},  {{0x00, 0x00, 0x00, 0x80}, 4}, {{0x80, 0x00, 0x80, 0x00}, 3},
      {{0x80, 0x80, 0x80, 0x80}, 4},  {{0x80, 0x81, 0xFF, 0xC0}, 1}, {{0x01, 0x7F, 0x81, 0x08}, 77},
  };
  for (const Case& test : kCases) {
    ByteVector sector = sectorZero();
    for (size_t i = 0; i < 4; ++i) sector[446 + 16 * i] = test.flags[i];
    const Stream stream = streamOf(sector);
    PartitionTable table = oldTable();
    uint32_t active = 77;
    read_bios_partition_table(stream.get(), &table, &active);
    EXPECT_EQ(active, test.active) << testing::PrintToString(test.flags);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(table.parts[i].flag, test.flags[i]);
  }
}

// A field of sector 0: the offset of its end, and its value.
struct SectorField {
  size_t end;
  std::function<uint32_t(const PartitionTable&)> value;
};

std::vector<SectorField> sectorFields() {
  std::vector<SectorField> result;
  for (const size_t i : {size_t{0}, size_t{445}}) {
    result.push_back({446, [i](const PartitionTable& table) { return uint32_t{table.boot_code[i]}; }});
  }
  // The ends of flag, start head, start sector, start track, type, end head, end sector, end track, lba and size in a
  // slot. A sector and a track share two bytes, so they end together.
  constexpr std::array<size_t, 10> kEnds = {1, 2, 4, 4, 5, 6, 8, 8, 12, 16};
  for (size_t slot = 0; slot < 4; ++slot) {
    for (size_t field = 0; field < kEnds.size(); ++field) {
      result.push_back({446 + 16 * slot + kEnds[field],
                        [slot, field](const PartitionTable& table) { return fields(table.parts[slot])[field]; }});
    }
  }
  return result;
}

TEST_F(ReadMBR, ShortStreamLeavesTheRemainingFieldsUnchanged) {
  const ByteVector sector = sectorZero();
  const PartitionTable old = oldTable();
  PartitionTable whole = old;
  uint32_t active = 0;
  read_bios_partition_table(streamOf(sector).get(), &whole, &active);  // the tests above check this call
  const std::vector<SectorField> all = sectorFields();
  for (size_t length = 0; length <= sector.size(); ++length) {
    PartitionTable table = old;
    active = 77;
    read_bios_partition_table(streamOf({sector.begin(), sector.begin() + static_cast<std::ptrdiff_t>(length)}).get(),
                              &table, &active);
    for (const SectorField& field : all) {
      ASSERT_EQ(field.value(table), field.value(length >= field.end ? whole : old)) << length << " " << field.end;
    }
    ASSERT_EQ(table.signature, 0xAA55) << length;  // the preset value, or the equal one of the disk
    ASSERT_EQ(active, length >= 447 ? 1U : 77U) << length;
  }
}

TEST_F(ReadMBR, SignatureOfAShortStreamIsThePresetValue) {
  ByteVector sector = sectorZero();
  put(sector, 510, {0x34, 0x12});
  for (const size_t length : {size_t{0}, size_t{100}, size_t{510}, size_t{511}}) {
    PartitionTable table = oldTable();
    uint32_t active = 0;
    read_bios_partition_table(streamOf({sector.begin(), sector.begin() + static_cast<std::ptrdiff_t>(length)}).get(),
                              &table, &active);
    EXPECT_EQ(table.signature, 0xAA55) << length;
  }
}

TEST_F(ReadMBR, FlagBeyondTheStreamMakesNoSlotActive) {
  PartitionTable table = {};
  for (MBRPartitionEntry& slot : table.parts) slot.flag = 0x80;  // left over from another disk
  uint32_t active = 77;
  read_bios_partition_table(streamOf(ByteVector(446)).get(), &table, &active);
  EXPECT_EQ(active, 77U);
}

TEST_F(ReadMBR, FailedReadLeavesTheFieldsUnchanged) {
  machine.addDisk("disk0", 4096, 512);
  machine.setBytes("disk0", 0, sectorZero());
  machine.fail("disk0", Operation::read, EIO);
  const Stream stream = openDeviceForReading("disk0");
  ASSERT_TRUE(stream);
  PartitionTable table = oldTable();
  uint32_t active = 77;
  read_bios_partition_table(stream.get(), &table, &active);
  EXPECT_THAT(ByteVector(table.boot_code, table.boot_code + 446), Each(kFilled));
  for (const MBRPartitionEntry& slot : table.parts) EXPECT_EQ(fields(slot), fields(oldTable().parts[0]));
  EXPECT_EQ(table.signature, 0xAA55);
  EXPECT_EQ(active, 77U);
  EXPECT_THAT(machine.writes(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------ GPT header

// A header sector whose bytes after the signature count up, so that each field shows its offset.
ByteVector countingHeader() {
  ByteVector sector(512);
  for (size_t i = 0; i < sector.size(); ++i) sector[i] = static_cast<uint8_t>(i);
  put(sector, 0, {'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T'});
  return sector;
}

using ReadGPTHeader = FlatTest;

TEST_F(ReadGPTHeader, TakesEveryFieldLittleEndianInOnDiskOrder) {
  const Stream stream = streamOf(countingHeader());
  GPTHeader header = {};
  read_gpt_header(stream.get(), &header);
  EXPECT_EQ(header.signature, 0x5452415020494645U);  // "EFI PART", first byte lowest
  EXPECT_EQ(header.revision, 0x0B0A0908U);           // bytes 8 to 11
  EXPECT_EQ(header.header_size, 0x0F0E0D0CU);
  EXPECT_EQ(header.header_crc32, 0x13121110U);
  EXPECT_EQ(header.reserved, 0x17161514U);
  EXPECT_EQ(header.my_lba, 0x1F1E1D1C1B1A1918U);
  EXPECT_EQ(header.alternate_lba, 0x2726252423222120U);
  EXPECT_EQ(header.first_usable_lba, 0x2F2E2D2C2B2A2928U);
  EXPECT_EQ(header.last_usable_lba, 0x3736353433323130U);
  EXPECT_THAT(header.disk_guid, ElementsAre(0x38, 0x39, 0x3A, 0x3B, 0x3C, 0x3D, 0x3E, 0x3F,  // bytes 56 to 71
                                            0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47));
  EXPECT_EQ(header.partition_entry_lba, 0x4F4E4D4C4B4A4948U);
  EXPECT_EQ(header.number_of_entries, 0x53525150U);
  EXPECT_EQ(header.size_of_entry, 0x57565554U);
  EXPECT_EQ(header.entries_crc32, 0x5B5A5958U);
  const ByteVector expected = countingHeader();
  EXPECT_TRUE(std::equal(header.remainder, header.remainder + 420, expected.begin() + 92));
  EXPECT_EQ(log(), "");
}

TEST_F(ReadGPTHeader, ReadsFromTheStreamsPositionAndOnly512Bytes) {
  const Stream stream = streamOf(joined({ByteVector(4096), countingHeader(), ByteVector(4096)}));
  ASSERT_EQ(std::fseek(stream.get(), 4096, SEEK_SET), 0);
  GPTHeader header = {};
  read_gpt_header(stream.get(), &header);
  EXPECT_EQ(header.signature, 0x5452415020494645U);
  EXPECT_EQ(std::ftell(stream.get()), 4608);
}

TEST_F(ReadGPTHeader, ValidatesNothing) {
  const Stream stream = streamOf(ByteVector(512, 0x5A));
  GPTHeader header = {};
  read_gpt_header(stream.get(), &header);
  EXPECT_EQ(header.signature, 0x5A5A5A5A5A5A5A5AU);
  EXPECT_EQ(header.number_of_entries, 0x5A5A5A5AU);
  EXPECT_EQ(log(), "");
}

TEST_F(ReadGPTHeader, ShortStreamLeavesTheRemainingFieldsUnchanged) {
  const ByteVector sector = countingHeader();
  // The end of each field, which is the start of the next one. The record has the same layout in memory as on disk.
  constexpr std::array<size_t, 15> kEnds = {8, 12, 16, 20, 24, 32, 40, 48, 56, 72, 80, 84, 88, 92, 512};
  GPTHeader whole = {};
  read_gpt_header(streamOf(sector).get(), &whole);
  for (size_t length = 0; length <= sector.size(); ++length) {
    GPTHeader header;
    std::memset(&header, kFilled, sizeof header);
    read_gpt_header(streamOf({sector.begin(), sector.begin() + static_cast<std::ptrdiff_t>(length)}).get(), &header);
    size_t taken = 0;
    for (const size_t end : kEnds) taken = end <= length ? end : taken;
    const auto* const got = reinterpret_cast<const uint8_t*>(&header);
    ASSERT_EQ(std::memcmp(got, &whole, taken), 0) << length;
    ASSERT_THAT(ByteVector(got + taken, got + sizeof header), Each(kFilled)) << length;
  }
}

}  // namespace
}  // namespace vorlix::test
