// SPDX-License-Identifier: Apache-2.0
//
// read_gpt(): GPT entries, and the MBR that is built from the first four.
#include <gmock/gmock.h>

#include <array>
#include <cstring>

#include "tests/unit/support/DiskBytes.h"
#include "tests/unit/support/FlatFixture.h"

namespace vorlix::test {
namespace {

using testing::Each;
using testing::ElementsAre;

constexpr uint8_t kFiller = 0xA5;
constexpr const char* kReadingGPT = "Reading GPT. line:327Setting signature to aa55";

// The result of a call on records that were filled with old bytes.
struct Result {
  PartitionTable table;
  std::vector<GPTEntry> entries;  // one more than requested, which must stay unchanged
  long position = 0;
};

class ReadGPT : public FlatTest {
 protected:
  Result read(const ByteVector& bytes, uint32_t count, uint32_t active = 0, int guard = 0,
              uint64_t lastUsableLBA = 2097118) {
    Result result;
    std::memset(&result.table, kFiller, sizeof result.table);
    result.entries.resize(size_t{count} + 1);
    std::memset(result.entries.data(), kFiller, result.entries.size() * sizeof(GPTEntry));
    GPTHeader header = {};
    header.number_of_entries = count;
    header.last_usable_lba = lastUsableLBA;
    const Stream stream = streamOf(bytes);
    read_gpt(stream.get(), &result.table, result.entries.data(), &header, active, guard);
    result.position = std::ftell(stream.get());
    return result;
  }

  // Returns the slot that mirrors a single entry.
  std::vector<uint32_t> slotOf(const GUIDBytes& type, uint64_t first, uint64_t last, uint32_t active = 0) {
    return fields(read(entryBytes(type, first, last), 1, active).table.parts[0]);
  }
};

bool isUnchanged(const void* bytes, size_t count) {
  const auto* const from = static_cast<const uint8_t*>(bytes);
  return std::all_of(from, from + count, [](uint8_t byte) { return byte == kFiller; });
}

// EFI System 40..409639, HFS+ 409640..1606499, basic data 1606500..2008124, APFS 2008125..2088449.
ByteVector fourEntries() {
  return joined({entryBytes(kEFISystemType, 40, 409639), entryBytes(kHFSType, 409640, 1606499),
                 entryBytes(kBasicDataType, 1606500, 2008124), entryBytes(kAPFSType, 2008125, 2088449)});
}

const std::vector<uint32_t> kOldSlot = {kFiller, kFiller, kFiller, 0xA5A5,     kFiller,
                                        kFiller, kFiller, 0xA5A5,  0xA5A5A5A5, 0xA5A5A5A5};

// --------------------------------------------------------------------------------------------------------- entries

TEST_F(ReadGPT, TakesEveryFieldOfAnEntry) {
  const Result result = read(entryBytes(kBasicDataType, 0x0102030405060708, 0x1112131415161718), 1);
  const GPTEntry& entry = result.entries[0];
  EXPECT_TRUE(std::equal(kBasicDataType.begin(), kBasicDataType.end(), entry.type_guid));
  EXPECT_THAT(entry.unique_guid, Each(0xD1));
  EXPECT_EQ(entry.first_lba, 0x0102030405060708U);
  EXPECT_EQ(entry.last_lba, 0x1112131415161718U);
  EXPECT_EQ(entry.attributes, 0x8877665544332211U);
  EXPECT_THAT(entry.name, Each('n'));
  EXPECT_STREQ(entry.guid_text, "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  EXPECT_EQ(log(), kReadingGPT);
}

TEST_F(ReadGPT, ReadsTheHeadersNumberOfEntriesAndPutsOnlyFourIntoTheMBR) {
  for (const uint32_t count : {1U, 4U, 5U, 128U, 129U, 16384U}) {
    ByteVector bytes;
    for (uint32_t i = 0; i < count; ++i) put(bytes, bytes.size(), entryBytes(kAPFSType, 1000 + i, 2000 + i));
    put(bytes, bytes.size(), ByteVector(1000, 0xEE));
    const Result result = read(bytes, count);
    for (uint32_t i = 0; i < count; ++i) {
      ASSERT_EQ(result.entries[i].first_lba, 1000 + i);
      ASSERT_EQ(result.entries[i].last_lba, 2000 + i);
      ASSERT_THAT(result.entries[i].name, Each('n'));
      ASSERT_STREQ(result.entries[i].guid_text, "7C3457EF-0000-11AA-AA11-00306543ECAC");
    }
    EXPECT_TRUE(isUnchanged(&result.entries[count], sizeof(GPTEntry))) << count;
    EXPECT_EQ(result.position, 128L * count);
    for (uint32_t i = 0; i < 4; ++i) {
      // A slot without an entry stays unchanged.
      EXPECT_EQ(result.table.parts[i].lba, i < count ? 1000 + i : kOldSlot.back()) << count;
      EXPECT_EQ(fields(result.table.parts[i]) == kOldSlot, i >= count) << count;
    }
  }
}

TEST_F(ReadGPT, HeaderWithoutEntriesSetsOnlyTheSignature) {
  const Result result = read(fourEntries(), 0);
  EXPECT_EQ(result.table.signature, 0xAA55);
  for (const MBRPartitionEntry& slot : result.table.parts) EXPECT_EQ(fields(slot), kOldSlot);
  EXPECT_TRUE(isUnchanged(result.entries.data(), sizeof(GPTEntry)));
  EXPECT_EQ(log(), kReadingGPT);
}

TEST_F(ReadGPT, LeavesBootCodeAndLeadingWordUnchanged) {
  const Result result = read(fourEntries(), 4);
  EXPECT_THAT(result.table.boot_code, Each(kFiller));
  EXPECT_EQ(static_cast<uint32_t>(result.table.reserved), 0xA5A5A5A5);
  EXPECT_EQ(result.table.signature, 0xAA55);
}

TEST_F(ReadGPT, OnlyTheGUIDsOfAnUnusedEntryAreSet) {
  const Result result = read(joined({unusedEntryBytes(), entryBytes(kHFSType, 409640, 1606499)}), 2);
  const GPTEntry& unused = result.entries[0];
  EXPECT_THAT(unused.type_guid, Each(0));
  EXPECT_THAT(unused.unique_guid, Each(0));
  EXPECT_STREQ(unused.guid_text, "00000000-0000-0000-0000-000000000000");
  EXPECT_TRUE(isUnchanged(&unused.first_lba, 8 + 8 + 8 + 72));  // first and last LBA, attributes, name
  EXPECT_EQ(result.entries[1].first_lba, 409640U);              // the next entry is at its own offset
  EXPECT_EQ(result.position, 256);
}

TEST_F(ReadGPT, UnusedEntryPastTheFourthIsSkippedToo) {
  const Result result = read(joined({fourEntries(), unusedEntryBytes(), entryBytes(kHFSType, 7, 8)}), 6);
  EXPECT_THAT(result.entries[4].unique_guid, Each(0));
  EXPECT_TRUE(isUnchanged(&result.entries[4].first_lba, 8 + 8 + 8 + 72));
  EXPECT_EQ(result.entries[5].first_lba, 7U);
}

TEST_F(ReadGPT, ShortStreamLeavesTheRemainingFieldsUnchanged) {
  const ByteVector whole = entryBytes(kBasicDataType, 1606500, 2008124);
  constexpr size_t kEnds[] = {16, 32, 40, 48, 56, 128};  // type, own GUID, first, last, attributes, name
  for (size_t length = 0; length <= 128; ++length) {
    const Result result = read({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)}, 1);
    size_t taken = 0;
    for (const size_t end : kEnds) taken = end <= length ? end : taken;
    const auto* const entry = reinterpret_cast<const uint8_t*>(&result.entries[0]);
    ASSERT_TRUE(std::equal(entry, entry + taken, whole.begin())) << length;
    ASSERT_TRUE(isUnchanged(entry + taken, 128 - taken)) << length;
    // The text is made from the type that the record then has.
    ASSERT_STREQ(result.entries[0].guid_text,
                 length < 16 ? "A5A5A5A5-A5A5-A5A5-A5A5-A5A5A5A5A5A5" : "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  }
}

TEST_F(ReadGPT, EntriesPastTheEndOfTheStreamAreUnusedInAClearedArray) {
  GPTHeader header = {};
  header.number_of_entries = 128;
  std::vector<GPTEntry> entries(128);
  PartitionTable table = {};
  const Stream stream =
      streamOf(joined({entryBytes(kEFISystemType, 40, 409639), entryBytes(kHFSType, 409640, 409647)}));
  read_gpt(stream.get(), &table, entries.data(), &header, 4, 0);
  EXPECT_EQ(table.parts[0].type, 0xEE);
  EXPECT_EQ(table.parts[1].type, 0xAF);
  EXPECT_EQ(fields(table.parts[2]), kEmptySlot);
  EXPECT_EQ(fields(table.parts[3]), kEmptySlot);
  EXPECT_STREQ(entries[127].guid_text, "00000000-0000-0000-0000-000000000000");
}

// ----------------------------------------------------------------------------------------------------------- slots

TEST_F(ReadGPT, SlotsMirrorTheFirstFourEntriesByPosition) {
  const Result result = read(joined({fourEntries(), entryBytes(kLinuxLVMType, 2088450, 2088500)}), 5, 3);
  EXPECT_THAT(fields(result.table.parts[0]), ElementsAre(0x00, 0, 2, 0, 0xEE, 127, 14, 25, 1, 409639));
  // 1606499 = 99 * 16065 + 16064; 1606499 - 409640 + 1 = 1196860
  EXPECT_THAT(fields(result.table.parts[1]), ElementsAre(0x00, 127, 15, 25, 0xAF, 254, 63, 99, 409640, 1196860));
  // 1606500 = 100 * 16065; 2008124 = 124 * 16065 + 16064; 25 cylinders are 401625 sectors
  EXPECT_THAT(fields(result.table.parts[2]), ElementsAre(0x80, 0, 1, 100, 0x07, 254, 63, 124, 1606500, 401625));
  // 2008125 = 125 * 16065; 2088449 = 129 * 16065 + 16064; 5 cylinders are 80325 sectors
  EXPECT_THAT(fields(result.table.parts[3]), ElementsAre(0x00, 0, 1, 125, 0xFF, 254, 63, 129, 2008125, 80325));
}

TEST_F(ReadGPT, UnusedEntryLeavesItsSlotZeroWithoutCompaction) {
  const ByteVector used = fourEntries();
  for (size_t unused = 0; unused < 4; ++unused) {
    ByteVector bytes = used;
    put(bytes, 128 * unused, unusedEntryBytes());
    const Result all = read(used, 4);
    const Result result = read(bytes, 4);
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(fields(result.table.parts[i]), i == unused ? kEmptySlot : fields(all.table.parts[i])) << unused << i;
    }
  }
}

TEST_F(ReadGPT, EFISystemPartitionInAnySlotBecomesTheProtectiveEntry) {
  for (size_t place = 0; place < 4; ++place) {
    ByteVector bytes = fourEntries();
    put(bytes, 0, entryBytes(kHFSType, 40, 409639));
    put(bytes, 128 * place, entryBytes(kEFISystemType, 40, 409639));
    EXPECT_THAT(fields(read(bytes, 4).table.parts[place]), ElementsAre(0, 0, 2, 0, 0xEE, 127, 14, 25, 1, 409639));
  }
}

TEST_F(ReadGPT, ActiveNumberMarksTheSlotOfAUsedEntryOnly) {
  ByteVector bytes = fourEntries();
  put(bytes, 128, unusedEntryBytes());
  struct Case {
    uint32_t active;
    std::array<uint8_t, 4> flags;
  };
  constexpr Case kCases[] = {
      {0, {0, 0, 0, 0}},    {1, {0x80, 0, 0, 0}}, {2, {0, 0, 0, 0}}, {3, {0, 0, 0x80, 0}},
      {4, {0, 0, 0, 0x80}}, {5, {0, 0, 0, 0}},    {6, {0, 0, 0, 0}}, {0xFFFFFFFF, {0, 0, 0, 0}},
  };
  put(bytes, bytes.size(), entryBytes(kHFSType, 3000000, 3000001));
  for (const Case& test : kCases) {
    const Result result = read(bytes, 5, test.active);
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(result.table.parts[i].flag, test.flags[i]) << test.active << " " << i;
  }
}

TEST_F(ReadGPT, TypeComesFromTheMap) {
  EXPECT_EQ(slotOf(kBasicDataType, 40, 47)[4], 0x07U);
  EXPECT_EQ(slotOf(kHFSType, 40, 47)[4], 0xAFU);
  EXPECT_EQ(slotOf(kAPFSType, 40, 47)[4], 0xFFU);
  EXPECT_EQ(slotOf(kAppleRAIDType, 40, 47)[4], 0xABU);
  EXPECT_EQ(slotOf(kAppleBootType, 40, 47)[4], 0xABU);
  EXPECT_EQ(slotOf(kEFISystemType, 40, 47)[4], 0xEEU);
  EXPECT_EQ(slotOf(kLinuxLVMType, 40, 47)[4], 0x8EU);
  EXPECT_EQ(slotOf(kCoreStorageType, 40, 47)[4], 0xACU);
}

TEST_F(ReadGPT, UnknownTypeStaysZeroButTheSlotIsFilled) {
  EXPECT_THAT(slotOf(kUnknownType, 2048, 2048), ElementsAre(0, 32, 33, 0, 0x00, 32, 33, 0, 2048, 1));
  // Microsoft basic data except for its last byte.
  GUIDBytes close = kBasicDataType;
  close[15] = 0xC6;
  EXPECT_EQ(slotOf(close, 40, 47)[4], 0U);
}

TEST_F(ReadGPT, UFSIsNotFoundUntilTheHostRaisesTheCount) {
  EXPECT_EQ(slotOf(kAppleUFSType, 40, 47)[4], 0U);
  number_of_partition_maps = 10;
  EXPECT_EQ(slotOf(kAppleUFSType, 40, 47)[4], 0xA8U);
  number_of_partition_maps = 9;
  EXPECT_EQ(slotOf(kAppleUFSType, 40, 47)[4], 0U);
}

TEST_F(ReadGPT, LookupStopsAfterTheCountedRows) {
  number_of_partition_maps = 6;  // EFI System is row 7
  EXPECT_EQ(slotOf(kAppleBootType, 40, 47)[4], 0xABU);
  EXPECT_THAT(slotOf(kEFISystemType, 40, 409639), ElementsAre(0, 0, 2, 0, 0x00, 127, 14, 25, 1, 409639));
  for (const int32_t none : {0, -1, -2147483647 - 1}) {
    number_of_partition_maps = none;
    EXPECT_EQ(slotOf(kBasicDataType, 40, 47)[4], 0U);
  }
}

TEST_F(ReadGPT, CountAboveTheTableCountsAsTen) {
  for (const int32_t many : {11, 1000000, 2147483647}) {
    number_of_partition_maps = many;
    EXPECT_EQ(slotOf(kAppleUFSType, 40, 47)[4], 0xA8U);
    EXPECT_EQ(slotOf(kUnknownType, 40, 47)[4], 0U);
  }
}

struct AddressCase {
  uint64_t lba;
  uint32_t head, sector, track;
};

class ReadGPTAddresses : public ReadGPT, public testing::WithParamInterface<AddressCase> {};

TEST_P(ReadGPTAddresses, StartAndEndFollowTheGeometry) {
  const AddressCase& test = GetParam();
  const auto lba = static_cast<uint32_t>(test.lba);
  EXPECT_THAT(slotOf(kBasicDataType, test.lba, test.lba),
              ElementsAre(0, test.head, test.sector, test.track, 0x07, test.head, test.sector, test.track, lba, 1));
}

INSTANTIATE_TEST_SUITE_P(Worked, ReadGPTAddresses,
                         testing::Values(AddressCase{1, 0, 2, 0}, AddressCase{40, 0, 41, 0}, AddressCase{63, 1, 1, 0},
                                         AddressCase{2048, 32, 33, 0}, AddressCase{409639, 127, 14, 25},
                                         AddressCase{409640, 127, 15, 25}, AddressCase{16450559, 254, 63, 1023},
                                         AddressCase{16450560, 0, 1, 1023},
                                         // 16450560 + 409640: the cylinder stays, head and sector continue
                                         AddressCase{16860200, 127, 15, 1023},
                                         // 2^31 - 1 = 133674 * 16065 + 172 * 63 + 1
                                         AddressCase{2147483647, 172, 2, 1023}));
// From 2^31 on, the number counts as negative and the results are truncated to 8, 8 and 16 bits.
INSTANTIATE_TEST_SUITE_P(
    Negative, ReadGPTAddresses,
    testing::Values(
        // -2^31: cylinder -133674 = 62934 modulo 65536, head -172 = 84 modulo 256, sector -2 + 1 = 255 modulo 256
        AddressCase{0x80000000, 84, 255, 62934},
        // -16065: cylinder -1, head 0, sector 0 + 1
        AddressCase{0xFFFFC13F, 0, 1, 65535},
        // -1: sector -1 + 1
        AddressCase{0xFFFFFFFF, 0, 0, 0}));
// Only the low 32 bits count.
INSTANTIATE_TEST_SUITE_P(Past32Bits, ReadGPTAddresses,
                         testing::Values(AddressCase{0x100000000, 0, 1, 0}, AddressCase{0x100000800, 32, 33, 0},
                                         AddressCase{0xFFFFFFFF00064028, 127, 15, 25},
                                         AddressCase{0x1FFFFFFFF, 0, 0, 0}));

TEST_F(ReadGPT, SizeIsCountedIn32Bits) {
  EXPECT_EQ(slotOf(kHFSType, 0x100000800, 0x100000FFF)[9], 2048U);
  EXPECT_EQ(slotOf(kHFSType, 0xFFFFFFF0, 0x10000000F)[9], 32U);   // across 2^32
  EXPECT_EQ(slotOf(kHFSType, 2048, 0x1000007FF)[9], 0U);          // 2^32 sectors
  EXPECT_EQ(slotOf(kHFSType, 100, 99)[9], 0U);                    // ends before it starts
  EXPECT_EQ(slotOf(kHFSType, 100, 50)[9], 0xFFFFFFCFU);           // 50 - 100 + 1 = -49
  EXPECT_EQ(slotOf(kHFSType, 0, 0xFFFFFFFFFFFFFFFF)[9], 0U);      // 0xFFFFFFFF - 0 + 1
  EXPECT_EQ(slotOf(kEFISystemType, 40, 0x200000123)[9], 0x123U);  // only the low 32 bits of the end
  EXPECT_EQ(slotOf(kEFISystemType, 0xFFFFFFFF00000028, 409639)[8], 1U);
}

// ----------------------------------------------------------------------------------------------------------- guard

constexpr const char* kReadingGuard =
    "Reading GPT. line:327"
    "Setting signature to aa55"
    "Changing to standard guard MBR line:419";

TEST_F(ReadGPT, GuardUsesOnlySlotOneAndCoversTheDisk) {
  const Result result = read(fourEntries(), 4, 3, 1);
  EXPECT_THAT(fields(result.table.parts[0]),
              ElementsAre(0x00, 254, 63, 1023, 0xEE, 254, 63, 1023, 1, 2097151));  // 2097118 + 33
  for (size_t i = 1; i < 4; ++i) EXPECT_EQ(fields(result.table.parts[i]), kEmptySlot);
  EXPECT_EQ(result.table.signature, 0xAA55);
  EXPECT_EQ(log(), kReadingGuard);
  EXPECT_EQ(result.entries[3].first_lba, 2008125U);  // all entries are read
}

TEST_F(ReadGPT, GuardClearsTheActiveFlag) {
  EXPECT_EQ(read(fourEntries(), 4, 1, 1).table.parts[0].flag, 0);
}

TEST_F(ReadGPT, GuardKeepsTypeAndFirstLBAOfSlotOne) {
  const Result other = read(entryBytes(kBasicDataType, 2048, 4095), 1, 0, 1);
  EXPECT_THAT(fields(other.table.parts[0]), ElementsAre(0, 254, 63, 1023, 0x07, 254, 63, 1023, 2048, 2097151));
  const Result unused = read(unusedEntryBytes(), 1, 0, 1);
  EXPECT_THAT(fields(unused.table.parts[0]), ElementsAre(0, 254, 63, 1023, 0x00, 254, 63, 1023, 0, 2097151));
}

TEST_F(ReadGPT, GuardSizeIsTheLow32BitsOfTheLastUsableLBAPlus33) {
  EXPECT_EQ(read(fourEntries(), 4, 0, 1, 0x300000064).table.parts[0].size, 133U);  // 100 + 33
  EXPECT_EQ(read(fourEntries(), 4, 0, 1, 0xFFFFFFFF).table.parts[0].size, 32U);    // -1 + 33
}

TEST_F(ReadGPT, GuardClearsSlotsWithoutAnEntryToo) {
  const Result result = read({}, 0, 0, 1);
  for (size_t i = 1; i < 4; ++i) EXPECT_EQ(fields(result.table.parts[i]), kEmptySlot);
}

TEST_F(ReadGPT, OnlyTheValueOneTurnsTheGuardOn) {
  for (const int guard : {0, 2, -1, 257}) {
    forgetLog();
    EXPECT_EQ(read(fourEntries(), 4, 0, guard).table.parts[1].type, 0xAF) << guard;
    EXPECT_EQ(log(), kReadingGPT);
  }
}

}  // namespace
}  // namespace vorlix::test
