// SPDX-License-Identifier: Apache-2.0
//
// write_new_gpt(): what is written to sector 0 and when nothing is, and the questions and log messages.
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

constexpr const char* kAsk = "Are you sure you want to write out a new partition table? <y/n> ";
constexpr const char* kAskSharedDisk =
    "Cannot get exclusive access to disk0.  You'll need to reboot if you choose to continue.  Continue? <y/n> ";
constexpr const char* kDeclined = "Exiting without writing.";

class WriteSector : public FlatTest {
 protected:
  WriteSector() {
    machine.addDisk("disk0", 1 << 20, 512);
    machine.setBytes("disk0", 0, ByteVector(8192, 0x3C));
    for (size_t i = 0; i < bootCode.size(); ++i) bootCode[i] = static_cast<uint8_t>(i * 7 + 1);
    bootCodePath = makeFile("boot-code", bootCode);

    std::memset(table.boot_code, 0x99, sizeof table.boot_code);  // unused
    // flag, start head, sector, track, type, end head, sector, track, lba, size
    table.parts[0] = {0x00, 0, 2, 0, 0xEE, 127, 14, 25, 1, 409639};
    table.parts[1] = {0x80, 127, 15, 25, 0x07, 254, 63, 1023, 409640, 16040920};
    table.parts[2] = {0x00, 1, 2, 770, 0xAF, 3, 4, 257, 0x11223344, 0xAABBCCDD};
    table.signature = 0xAA55;
  }

  // Returns the sector that must result from `table` and `bootCode`.
  ByteVector expectedSector() const {
    ByteVector sector = bootCode;
    sector.resize(512);
    put(sector, 446,
        {0x00, 0x00, 0x02, 0x00,    // not active; head 0, sector 2, cylinder 0
         0xEE, 0x7F, 0x0E, 0x19,    // type; head 127, sector 14, cylinder 25
         0x01, 0x00, 0x00, 0x00,    // first LBA 1
         0x27, 0x40, 0x06, 0x00,    // 409639 = 0x64027 sectors
         0x80, 0x7F, 0x0F, 0x19,    // active; head 127, sector 15, cylinder 25
         0x07, 0xFE, 0xFF, 0xFF,    // type; head 254, sector 63 with cylinder bits 8-9 above it, cylinder 1023
         0x28, 0x40, 0x06, 0x00,    // 409640 = 0x64028
         0xD8, 0xC3, 0xF4, 0x00,    // 16040920 = 0xF4C3D8
         0x00, 0x01, 0xC2, 0x02,    // head 1; sector 2, cylinder 770 = 0x302: 2 + 0xC0, 0x02
         0xAF, 0x03, 0x44, 0x01,    // head 3; sector 4, cylinder 257 = 0x101: 4 + 0x40, 0x01
         0x44, 0x33, 0x22, 0x11,    //
         0xDD, 0xCC, 0xBB, 0xAA});  //
    put(sector, 510, {0x55, 0xAA});
    return sector;
  }

  void write(int nonInteractive = 1) { write_new_gpt(nonInteractive, "disk0", bootCodePath.c_str(), &table); }

  // Returns the output of an interactive call with these answers on standard input.
  std::string ask(const std::string& answers) {
    const StandardInput input(makeFile("answers", {answers.begin(), answers.end()}));
    OutputCapture output(STDOUT_FILENO);
    write(0);
    return output.text();
  }

  bool written() const { return sector() == expectedSector() && restIntact(); }
  bool untouched() const { return sector() == ByteVector(512, 0x3C) && restIntact(); }
  ByteVector sector() const { return machine.bytes("disk0", 0, 512); }
  bool restIntact() const { return machine.bytes("disk0", 512, 8192 - 512) == ByteVector(8192 - 512, 0x3C); }

  std::string loggedUpToTheFile() const { return "Device openedOpening MBR file at path " + bootCodePath; }

  ByteVector bootCode = ByteVector(446);
  std::string bootCodePath;
  PartitionTable table = {};
  const std::string openingExclusive =
      "Writing new GPT on device disk0."
      "Opening device with exclusive lock.";
  const std::string fallingBack =
      "Failed to open device."
      "Opening device with shared lock.";
};

// --------------------------------------------------------------------------------------------------------- writing

TEST_F(WriteSector, BootCodeSlotsAndSignatureAreWrittenInOneWrite) {
  OutputCapture output(STDOUT_FILENO);
  write();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(sector(), expectedSector());
  EXPECT_TRUE(restIntact());
  EXPECT_THAT(machine.journal(),
              ElementsAre("open disk0 write exclusive", "write disk0 0+512", "sync disk0", "close disk0"));
  EXPECT_EQ(log(), openingExclusive + loggedUpToTheFile() + "Writing signature of aa55");
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(WriteSector, DiskSignatureComesFromTheBootCodeFile) {
  put(bootCode, 440, {0xDE, 0xAD, 0xBE, 0xEF, 0x12, 0x34});
  makeFile("boot-code", bootCode);
  write();
  EXPECT_THAT(machine.bytes("disk0", 440, 6), ElementsAre(0xDE, 0xAD, 0xBE, 0xEF, 0x12, 0x34));
}

TEST_F(WriteSector, OnlyTheFirst446BytesOfALongerFileAreUsed) {
  ByteVector longer = bootCode;
  longer.resize(1024, 0x77);
  makeFile("boot-code", longer);
  write();
  EXPECT_TRUE(written());
}

TEST_F(WriteSector, AShorterFileIsPaddedWithZeros) {
  for (const size_t length : {size_t{440}, size_t{1}, size_t{0}}) {
    bootCode.resize(length);
    makeFile("boot-code", bootCode);
    bootCode.resize(446);
    write();
    EXPECT_EQ(sector(), expectedSector()) << length;
  }
}

TEST_F(WriteSector, SectorIsNotMaskedOnEncoding) {
  // The result for an LBA of 2^31: head 84, sector 255, cylinder 62934 = 0xF5D6.
  table.parts[3] = {0, 84, 255, 62934, 0x07, 84, 0x41, 0, 0x80000000, 1};
  write();
  EXPECT_THAT(machine.bytes("disk0", 494, 16), ElementsAre(0x00, 0x54, 0xFF, 0xD6,    // 255 | 0x40, 0xD6
                                                           0x07, 0x54, 0x41, 0x00,    // 65 overflows into the cylinder
                                                           0x00, 0x00, 0x00, 0x80,    //
                                                           0x01, 0x00, 0x00, 0x00));  //
}

TEST_F(WriteSector, OnADiskOf4096ByteBlocksStill512BytesAreWritten) {
  machine.addDisk("disk0", 1 << 20, 4096);
  write();
  EXPECT_TRUE(written());
  EXPECT_THAT(machine.writes(), ElementsAre("write disk0 0+512", "sync disk0"));
}

// ------------------------------------------------------------------------------------------------------------ refusals

TEST_F(WriteSector, WithoutBootCodePathNothingIsWrittenAndTheDeviceStaysOpen) {
  write_new_gpt(1, "disk0", nullptr, &table);
  EXPECT_EQ(log(), openingExclusive + "Device openedNo MBR file. Aborting");
  EXPECT_TRUE(untouched());
  EXPECT_THAT(machine.journal(), ElementsAre("open disk0 write exclusive"));
  EXPECT_EQ(keptOpenCount(), 1U);
  EXPECT_EQ(machine.openCount(), 1U);
  closeKeptOpen();
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(WriteSector, WrongSignatureIsRefusedAndTheDeviceStaysOpen) {
  for (const uint16_t signature : {uint16_t{0x55AA}, uint16_t{0}, uint16_t{0xAA54}}) {
    table.signature = signature;
    forgetLog();
    machine.clearJournal();
    write();
    EXPECT_EQ(log(), openingExclusive + loggedUpToTheFile() +
                         "Signature is not AA55. Writing this would cause the partition table to be unreadable. "
                         "Aborting. line:569");
    EXPECT_TRUE(untouched());
    EXPECT_THAT(machine.journal(), ElementsAre("open disk0 write exclusive"));
    EXPECT_EQ(keptOpenCount(), 1U);
    closeKeptOpen();
  }
}

TEST_F(WriteSector, WrongSignatureIsReportedBeforeTheWrongType) {
  table.signature = 0;
  table.parts[0].type = 0x07;
  write();
  EXPECT_THAT(log(), testing::EndsWith("line:569"));
}

TEST_F(WriteSector, SlotOneThatIsNotProtectiveIsRefusedAndTheDeviceIsClosed) {
  for (const uint8_t type : {uint8_t{0x00}, uint8_t{0x07}, uint8_t{0xEF}, uint8_t{0xFF}}) {
    table.parts[0].type = type;
    table.parts[1].type = 0xEE;  // irrelevant
    forgetLog();
    machine.clearJournal();
    write();
    EXPECT_EQ(log(), openingExclusive + loggedUpToTheFile() +
                         "Writing signature of aa55"
                         "Type of first partition in LBA 0 is not 0xEE.  Writing this would cause the partition table "
                         "to be unreadable. Aborting. line:590");
    EXPECT_TRUE(untouched());
    EXPECT_THAT(machine.journal(), ElementsAre("open disk0 write exclusive", "close disk0"));
    EXPECT_EQ(keptOpenCount(), 0U);
  }
}

// ---------------------------------------------------------------------------------------------- missing boot-code file

using WriteSectorDeathTest = WriteSector;

// Uses a real file, because changes that a child makes to a simulated machine are lost.
TEST_F(WriteSectorDeathTest, MissingBootCodeFileEndsTheProcessWithStatus255BeforeAnythingIsWritten) {
  const ByteVector disk(8192, 0x3C);
  const std::string image = makeFile("disk.img", disk);
  const std::string missing = folder / "missing";
  EXPECT_EXIT(
      {
        const ScopedPlatform native(nativePortsWithLog());
        write_new_gpt(1, image.c_str(), missing.c_str(), &table);
      },
      testing::ExitedWithCode(255), "^$");
  EXPECT_EQ(contentOf(image), std::string(disk.begin(), disk.end()));
  EXPECT_EQ(log(), "Writing new GPT on device " + image +
                       ".Opening device with exclusive lock.Device openedOpening MBR file at path " + missing +
                       "Error opening MBR file. Aborting");
}

TEST_F(WriteSectorDeathTest, EmptyBootCodePathCountsAsAMissingFile) {
  EXPECT_EXIT(write_new_gpt(1, "disk0", "", &table), testing::ExitedWithCode(255), "^$");
  EXPECT_EQ(log(), openingExclusive + "Device openedOpening MBR file at path Error opening MBR file. Aborting");
}

TEST_F(WriteSectorDeathTest, FolderAsBootCodeFileEndsTheProcessToo) {
  EXPECT_EXIT(write_new_gpt(1, "disk0", (folder / "").c_str(), &table), testing::ExitedWithCode(255), "^$");
  EXPECT_THAT(log(), testing::EndsWith("Error opening MBR file. Aborting"));
}

TEST_F(WriteSectorDeathTest, MissingBootCodeFileEndsTheProcessBeforeSignatureAndTypeAreChecked) {
  table.signature = 0;
  table.parts[0].type = 0;
  EXPECT_EXIT(write_new_gpt(1, "disk0", (folder / "missing").c_str(), &table), testing::ExitedWithCode(255), "^$");
}

// ---------------------------------------------------------------------------------------------------------- locks

TEST_F(WriteSector, FallsBackToASharedLockWithoutAsking) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  OutputCapture output(STDOUT_FILENO);
  write();
  EXPECT_EQ(output.text(), "");
  EXPECT_TRUE(written());
  EXPECT_THAT(machine.journal(), ElementsAre("open disk0 write exclusive: EWOULDBLOCK", "open disk0 write shared",
                                             "write disk0 0+512", "sync disk0", "close disk0"));
  EXPECT_EQ(log(), openingExclusive + fallingBack + loggedUpToTheFile() + "Writing signature of aa55");
}

TEST_F(WriteSector, GivesUpIfTheSharedLockFailsToo) {
  machine.lockElsewhere("disk0", DeviceLock::exclusive);
  write();
  EXPECT_EQ(log(), openingExclusive + fallingBack + "Error trying to open device %{errono}d. Aborting.");
  EXPECT_TRUE(untouched());
  EXPECT_THAT(machine.journal(),
              ElementsAre("open disk0 write exclusive: EWOULDBLOCK", "open disk0 write shared: EWOULDBLOCK"));
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(WriteSector, UnknownDeviceIsOpenedWithBothLocks) {
  write_new_gpt(1, "disk9", bootCodePath.c_str(), &table);
  EXPECT_THAT(machine.journal(), ElementsAre("open disk9 write exclusive: ENOENT", "open disk9 write shared: ENOENT"));
  EXPECT_THAT(log(), testing::EndsWith("Error trying to open device %{errono}d. Aborting."));
}

// --------------------------------------------------------------------------------------------------------- asking

TEST_F(WriteSector, InteractiveWritesAfterALowerCaseY) {
  for (const char* answer : {"y\n", "yes\n", "  \n y\n", "yellow submarine"}) {
    machine.setBytes("disk0", 0, ByteVector(512, 0x3C));
    EXPECT_EQ(ask(answer), kAsk) << answer;
    EXPECT_TRUE(written()) << answer;
  }
}

TEST_F(WriteSector, InteractiveDoesNotWriteOnAnyOtherAnswer) {
  for (const char* answer : {"Y\n", "YES\n", "n\n", "no y\n", "\n", "", " "}) {
    forgetLog();
    EXPECT_EQ(ask(answer), std::string(kAsk) + kDeclined) << answer;
    EXPECT_EQ(log(), "Writing new GPT on device disk0.") << answer;
    EXPECT_TRUE(untouched()) << answer;
    EXPECT_THAT(machine.journal(), IsEmpty()) << answer;
  }
}

TEST_F(WriteSector, EveryOtherSwitchValueSuppressesTheQuestion) {
  for (const int nonInteractive : {1, 2, -1}) {
    machine.setBytes("disk0", 0, ByteVector(512, 0x3C));
    OutputCapture output(STDOUT_FILENO);
    write(nonInteractive);
    EXPECT_EQ(output.text(), "");
    EXPECT_TRUE(written());
  }
}

TEST_F(WriteSector, InteractiveAsksBeforeItFallsBackToASharedLock) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  EXPECT_EQ(ask("y\ny\n"), std::string(kAsk) + kAskSharedDisk);
  EXPECT_TRUE(written());
  EXPECT_EQ(log(), openingExclusive + fallingBack + loggedUpToTheFile() + "Writing signature of aa55");
}

TEST_F(WriteSector, InteractiveDoesNotFallBackOnAnyOtherAnswer) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  // Each question reads one character, so the "e" of "yes" answers the second question.
  for (const char* answers : {"y\nn\n", "y\nY\n", "y\n", "yes\nyes\n"}) {
    forgetLog();
    machine.clearJournal();
    EXPECT_EQ(ask(answers), std::string(kAsk) + kAskSharedDisk + kDeclined) << answers;
    EXPECT_EQ(log(), openingExclusive + "Failed to open device.") << answers;
    EXPECT_TRUE(untouched()) << answers;
    EXPECT_THAT(machine.journal(), ElementsAre("open disk0 write exclusive: EWOULDBLOCK")) << answers;
  }
}

// ---------------------------------------------------------------------------------------------------------- faults

TEST_F(WriteSector, FailedWriteIsNotReported) {
  machine.fail("disk0", Operation::write, EIO);
  OutputCapture errors(STDERR_FILENO);
  write();
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(log(), openingExclusive + loggedUpToTheFile() + "Writing signature of aa55");
  EXPECT_TRUE(untouched());
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(WriteSector, ShortWriteIsNotRetried) {
  machine.shortenWrites("disk0", 100);
  write();
  EXPECT_THAT(journalButReads(), ElementsAre("open disk0 write exclusive", "write disk0 0+512", "close disk0"));
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(WriteSector, FailedSyncOrCloseIsIgnored) {
  for (const Operation operation : {Operation::sync, Operation::close}) {
    machine.setBytes("disk0", 0, ByteVector(512, 0x3C));
    machine.fail("disk0", operation, EIO);
    forgetLog();
    write();
    EXPECT_TRUE(written());
    EXPECT_EQ(log(), openingExclusive + loggedUpToTheFile() + "Writing signature of aa55");
    EXPECT_EQ(machine.openCount(), 0U);
  }
}

TEST_F(WriteSector, DiskShorterThanASectorIsNotLeftOpen) {
  for (const uint64_t size : {0U, 100U}) {
    machine.addDisk("tiny", size, 512);
    write_new_gpt(1, "tiny", bootCodePath.c_str(), &table);
    EXPECT_EQ(machine.openCount(), 0U) << size;
    EXPECT_EQ(machine.bytes("tiny", 0, 512).size(), size);
  }
}

}  // namespace
}  // namespace vorlix::test
