// SPDX-License-Identifier: Apache-2.0
//
// Printing, logging and comparing tables, and telling a guard MBR from a hybrid one.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/unit/support/DiskBytes.h"
#include "tests/unit/support/FlatFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kUnusedText = "00000000-0000-0000-0000-000000000000";
constexpr const char* kEFIText = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
constexpr const char* kDataText = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";

// ----------------------------------------------------------------------------------------------------- print_gpt()

void setEntry(GPTEntry& entry, const char* type, uint64_t first, uint64_t last) {
  std::strcpy(entry.guid_text, type);
  entry.first_lba = first;
  entry.last_lba = last;
}

std::vector<GPTEntry> unusedEntries(size_t count) {
  std::vector<GPTEntry> entries(count);
  for (GPTEntry& entry : entries) setEntry(entry, kUnusedText, 5, 6);
  return entries;
}

class PrintGPT : public FlatTest {
 protected:
  static std::string printed(const std::vector<GPTEntry>& entries) {
    OutputCapture output(STDOUT_FILENO);
    print_gpt(entries.data());
    return output.text();
  }
  const std::string heading =
      " -------------------------------------- GPT ----------------------------------\n"
      "      start       size  index  contents\n";
};

TEST_F(PrintGPT, PrintsUsedEntriesWithTheLastLBAUnderSize) {
  std::vector<GPTEntry> entries = unusedEntries(128);
  setEntry(entries[0], kEFIText, 40, 409639);
  setEntry(entries[2], kDataText, 409640, 1606499);
  EXPECT_EQ(printed(entries), heading +
                                  "        40      409639      1  GPT part - C12A7328-F81F-11D2-BA4B-00A0C93EC93B\n"
                                  "    409640     1606499      2  GPT part - EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
  EXPECT_EQ(log(), "");
}

TEST_F(PrintGPT, PrintsOnlyTheHeadingIfNoEntryIsUsed) {
  EXPECT_EQ(printed(unusedEntries(128)), heading);
}

TEST_F(PrintGPT, PrintsExactly128Entries) {
  std::vector<GPTEntry> entries = unusedEntries(130);
  setEntry(entries[127], kDataText, 1, 2);
  setEntry(entries[128], kEFIText, 3, 4);
  EXPECT_EQ(printed(entries),
            heading + "         1           2      1  GPT part - EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
}

TEST_F(PrintGPT, PrintsNumbersAsSignedAndWiderThanTheirColumns) {
  std::vector<GPTEntry> entries = unusedEntries(128);
  setEntry(entries[0], kDataText, 0xFFFFFFFFFFFFFFFF, 123456789012);
  EXPECT_EQ(printed(entries),
            heading + "        -1 123456789012      1  GPT part - EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n");
}

// ------------------------------------------------------------------------------------- print_bios_partition_table()

using PrintMBR = FlatTest;

constexpr const char* kTableHeading =
    "\n\n line:468"
    " ----------------------------- BIOS Partition Table--------------------------\n line:469"
    " #: id  cyl  hd sec -  cyl  hd sec [     start -       size]\n line:470"
    "------------------------------------------------------------------------\n line:471";

TEST_F(PrintMBR, LogsTheFourSlots) {
  PartitionTable table = {};
  // flag, start head, sector, track, type, end head, sector, track, lba, size
  table.parts[0] = {0x00, 0, 2, 0, 0xEE, 127, 14, 25, 1, 409639};
  table.parts[1] = {0x80, 127, 15, 25, 0x07, 254, 63, 1023, 409640, 16040920};
  OutputCapture output(STDOUT_FILENO);
  print_bios_partition_table(&table);
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(log(), std::string(kTableHeading) +
                       " 1: EE    0   0   2 -   25 127  14 [         1 -     409639]\n"
                       "* 2: 07   25 127  15 - 1023 254  63 [    409640 -   16040920]\n"
                       " 3: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       " 4: 00    0   0   0 -    0   0   0 [         0 -          0]\n");
}

TEST_F(PrintMBR, MarksEveryFlagWithItsTopBit) {
  PartitionTable table = {};
  table.parts[0].flag = 0x80;
  table.parts[1].flag = 0x7F;
  table.parts[2].flag = 0x81;
  table.parts[3].flag = 0xFF;
  print_bios_partition_table(&table);
  EXPECT_EQ(log(), std::string(kTableHeading) +
                       "* 1: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       " 2: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       "* 3: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       "* 4: 00    0   0   0 -    0   0   0 [         0 -          0]\n");
}

TEST_F(PrintMBR, PrintsLBAAndSizeAsSignedAndTracksAsUnsigned) {
  PartitionTable table = {};
  table.parts[0] = {0xFF, 255, 255, 65535, 0xFF, 255, 255, 62934, 0x80000000, 0xFFFFFFFF};
  print_bios_partition_table(&table);
  const std::string expected =
      std::string(kTableHeading) + "* 1: FF 65535 255 255 - 62934 255 255 [-2147483648 -         -1]\n";
  EXPECT_EQ(log().substr(0, expected.size()), expected);
}

// --------------------------------------------------------------------------------------- ComparePartitionTables()

class Compare : public FlatTest {
 protected:
  Compare() {
    for (uint8_t i = 0; i < 4; ++i) {
      fresh[i] = {0x00, 1, 2, 3, 0x07, 4, 5, 6, 100, 200};
      fresh[i].type = static_cast<uint8_t>(i + 1);
      disk[i] = fresh[i];
    }
  }
  int compare() {
    forgetLog();
    return ComparePartitionTables(fresh, disk);
  }
  MBRPartitionEntry fresh[4];
  MBRPartitionEntry disk[4];
};

TEST_F(Compare, EqualTablesReturnZeroAfterAllFourSlots) {
  EXPECT_EQ(compare(), 0);
  EXPECT_EQ(log(),
            "Comparing partition tables. line:228"
            "Comparing partition index 0Comparing partition index 1"
            "Comparing partition index 2Comparing partition index 3");
}

TEST_F(Compare, DifferenceInSlotThreeEndsTheComparison) {
  disk[2].type = 0xAF;
  EXPECT_EQ(compare(), -1);
  EXPECT_EQ(log(),
            "Comparing partition tables. line:228"
            "Comparing partition index 0Comparing partition index 1Comparing partition index 2"
            "type is different: 3 - 175\n");
}

TEST_F(Compare, LBAAndFlagOfSlotOneAreLoggedInThatOrder) {
  fresh[0].flag = 0x80;
  disk[0].lba = 409640;
  disk[1].size = 9;  // not reached
  EXPECT_EQ(compare(), -1);
  EXPECT_EQ(log(),
            "Comparing partition tables. line:228"
            "Comparing partition index 0"
            "lba is different: 100 - 409640\n"
            "flag is different: 128 - 0\n");
}

TEST_F(Compare, EveryDifferenceOfASlotIsLoggedInOrder) {
  fresh[3] = {11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  disk[3] = {21, 22, 23, 24, 25, 26, 27, 28, 29, 30};
  EXPECT_EQ(compare(), -1);
  EXPECT_EQ(log(),
            "Comparing partition tables. line:228"
            "Comparing partition index 0Comparing partition index 1"
            "Comparing partition index 2Comparing partition index 3"
            "lba is different: 19 - 29\n"
            "lba size is different: 20 - 30\n"
            "start_head is different: 12 - 22\n"
            "start_sector is different: 13 - 23\n"
            "start_track is different:  14 - 24\n"
            "end_head is different:  16 - 26\n"
            "end_sector is different: 17 - 27\n"
            "end_track is different: 18 - 28\n"
            "type is different: 15 - 25\n"
            "flag is different: 11 - 21\n");
}

TEST_F(Compare, EachFieldAloneMakesADifference) {
  const auto differs = [this](auto member, const std::string& message) {
    const MBRPartitionEntry before = disk[1];
    disk[1].*member = 77;
    EXPECT_EQ(compare(), -1) << message;
    EXPECT_EQ(log(),
              "Comparing partition tables. line:228Comparing partition index 0Comparing partition index 1" + message);
    disk[1] = before;
  };
  differs(&MBRPartitionEntry::lba, "lba is different: 100 - 77\n");
  differs(&MBRPartitionEntry::size, "lba size is different: 200 - 77\n");
  differs(&MBRPartitionEntry::start_head, "start_head is different: 1 - 77\n");
  differs(&MBRPartitionEntry::start_sector, "start_sector is different: 2 - 77\n");
  differs(&MBRPartitionEntry::start_track, "start_track is different:  3 - 77\n");
  differs(&MBRPartitionEntry::end_head, "end_head is different:  4 - 77\n");
  differs(&MBRPartitionEntry::end_sector, "end_sector is different: 5 - 77\n");
  differs(&MBRPartitionEntry::end_track, "end_track is different: 6 - 77\n");
  differs(&MBRPartitionEntry::type, "type is different: 2 - 77\n");
  differs(&MBRPartitionEntry::flag, "flag is different: 0 - 77\n");
}

TEST_F(Compare, ValuesAreLoggedAsSigned) {
  fresh[0].lba = 0xFFFFFFFF;
  fresh[0].size = 0x80000000;
  fresh[0].end_track = 65535;
  EXPECT_EQ(compare(), -1);
  EXPECT_EQ(log(),
            "Comparing partition tables. line:228Comparing partition index 0"
            "lba is different: -1 - 100\n"
            "lba size is different: -2147483648 - 200\n"
            "end_track is different: 65535 - 6\n");
}

// ------------------------------------------------------------------------------------------------- has_guard_mbr()

class HasGuardMBR : public FlatTest {
 protected:
  HasGuardMBR() { machine.addDisk("disk0", 1 << 20, 512); }

  int withTypes(uint8_t one, uint8_t two, uint8_t three, uint8_t four) {
    machine.setBytes("disk0", 446 + 4, {one});
    machine.setBytes("disk0", 462 + 4, {two});
    machine.setBytes("disk0", 478 + 4, {three});
    machine.setBytes("disk0", 494 + 4, {four});
    forgetLog();
    return has_guard_mbr("disk0");
  }
};

TEST_F(HasGuardMBR, BasicDataInSlotTwoIsHybrid) {
  EXPECT_EQ(withTypes(0xEE, 0x07, 0, 0), 0);
  EXPECT_EQ(log(), "Checking for guard MBR on disk disk0Found hybrid MBR");
}

TEST_F(HasGuardMBR, EmptySlotTwoIsGuardWhateverSlotOneHolds) {
  for (const uint8_t one : {uint8_t{0}, uint8_t{0x07}, uint8_t{0xEE}, uint8_t{0xFF}}) {
    EXPECT_EQ(withTypes(one, 0, 0, 0), 1);
    EXPECT_EQ(log(), "Checking for guard MBR on disk disk0Found guard MBR.");
  }
}

TEST_F(HasGuardMBR, OnlyTheTypeOfSlotTwoCounts) {
  EXPECT_EQ(withTypes(0xEE, 0, 0x07, 0xAF), 1);
  EXPECT_EQ(withTypes(0xEE, 0xEE, 0, 0), 0);
  EXPECT_EQ(withTypes(0, 0xFF, 0, 0), 0);
  machine.setBytes("disk0", 462, {0x80, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1});
  EXPECT_EQ(has_guard_mbr("disk0"), 1);
}

TEST_F(HasGuardMBR, LeavesItsStreamOpenAndWritesNothing) {
  const size_t before = keptOpenCount();
  EXPECT_EQ(has_guard_mbr("/dev/disk0"), 1);
  EXPECT_THAT(journalButReads(), ElementsAre("open disk0 read"));
  EXPECT_EQ(keptOpenCount(), before + 1);
  EXPECT_EQ(machine.openCount(), 1U);
  closeKeptOpen();
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(HasGuardMBR, DeviceThatCannotBeOpenedCountsAsGuard) {
  EXPECT_EQ(has_guard_mbr("disk9"), 1);
  EXPECT_EQ(log(), "Checking for guard MBR on disk disk9Found guard MBR.");
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(HasGuardMBR, DeviceThatCannotBeReadCountsAsGuard) {
  machine.setBytes("disk0", 462 + 4, {0x07});
  machine.fail("disk0", Operation::read, EIO);
  EXPECT_EQ(has_guard_mbr("disk0"), 1);
  EXPECT_THAT(machine.writes(), IsEmpty());
}

TEST_F(HasGuardMBR, LongPathIsUsedInFull) {
  const std::string name = "/dev/disk" + std::string(60, '7');
  machine.addDisk(name.substr(5), 1024, 512);
  machine.setBytes(name, 462 + 4, {0x07});
  EXPECT_EQ(has_guard_mbr(name.c_str()), 0);
  EXPECT_EQ(log(), "Checking for guard MBR on disk " + name + "Found hybrid MBR");
}

TEST_F(HasGuardMBR, TinyDiskCountsAsGuard) {
  for (const uint64_t size : {0U, 100U, 466U}) {
    machine.addDisk("tiny", size, 512);
    EXPECT_EQ(has_guard_mbr("tiny"), 1) << size;
  }
}

}  // namespace
}  // namespace vorlix::test
