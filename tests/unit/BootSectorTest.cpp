// SPDX-License-Identifier: Apache-2.0
//
// update_start_sector(): the two fields of a boot sector that change, and the questions, log messages and results.
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
using testing::MatchesRegex;
using testing::StartsWith;

constexpr const char* kAskShared =
    "Cannot get exclusive access to disk0s3.  You'll need to reboot if you choose to continue.  Continue? <y/n> ";
constexpr const char* kPatchLog =
    "writing out 28 40 06 00"
    "Updating start sector offset on disk0s3\n"
    "Updating UUID line:652\n";

std::string systemError(const char* what, int error) {
  return std::string(what) + ": " + std::strerror(error) + "\n";
}

class BootSector : public FlatTest {
 protected:
  static constexpr uint64_t kFirst = 100;    // blocks
  static constexpr uint64_t kDisk = 102400;  // bytes

  BootSector() {
    machine.addDisk("disk0", kDisk, 512);
    machine.addSlice("disk0", 3, kFirst, 8);
    machine.setBytes("disk0", 0, ByteVector(kDisk, 0x3C));
    sector[28] = 0x28;  // 409640 = 0x00064028, lowest byte first
    sector[29] = 0x40;
    sector[30] = 0x06;
    sector[31] = 0x00;
  }

  int patch(uint32_t start = 409640, int nonInteractive = 1) {
    return update_start_sector(nonInteractive, 0, start, 0, "disk0s3");
  }

  struct Asked {
    std::string printed;
    int result;
  };
  Asked ask(const std::string& answers) {
    const StandardInput input(makeFile("answers", {answers.begin(), answers.end()}));
    OutputCapture output(STDOUT_FILENO);
    const int result = patch(409640, 0);
    return {output.text(), result};
  }

  ByteVector serial() const { return machine.bytes("disk0s3", 72, 8); }

  // The whole disk with the old value in the eight bytes of the serial number.
  ByteVector diskWithOldSerial() const {
    ByteVector disk = machine.bytes("disk0", 0, kDisk);
    put(disk, kFirst * 512 + 72, ByteVector(8, 0x3C));
    return disk;
  }
  ByteVector untouchedDisk() const { return ByteVector(kDisk, 0x3C); }
  ByteVector patchedDisk() const {
    ByteVector disk = untouchedDisk();
    put(disk, kFirst * 512, sector);
    return disk;
  }
  bool untouched() const { return machine.bytes("disk0", 0, kDisk) == untouchedDisk(); }

  ByteVector sector = ByteVector(512, 0x3C);
};

// -------------------------------------------------------------------------------------------------------- patching

TEST_F(BootSector, BytesAt28And72ChangeAndNoOthers) {
  OutputCapture output(STDOUT_FILENO);
  OutputCapture errors(STDERR_FILENO);
  const int result = patch();
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(diskWithOldSerial(), patchedDisk());
  EXPECT_NE(serial(), ByteVector(8, 0x3C));
  EXPECT_EQ(log(), kPatchLog);
  EXPECT_THAT(machine.journal(), ElementsAre("open disk0s3 write exclusive", "write disk0s3 28+4", "write disk0s3 72+8",
                                             "sync disk0s3", "close disk0s3"));
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(BootSector, StartSectorIsWrittenAndLoggedLeastSignificantByteFirst) {
  struct Case {
    uint32_t start;
    ByteVector bytes;
    const char* text;
  };
  const Case cases[] = {
      {0x00064028, {0x28, 0x40, 0x06, 0x00}, "writing out 28 40 06 00"},
      {0x12ABCDEF, {0xEF, 0xCD, 0xAB, 0x12}, "writing out EF CD AB 12"},
      {0x00000000, {0x00, 0x00, 0x00, 0x00}, "writing out 00 00 00 00"},
      {0xFFFFFFFF, {0xFF, 0xFF, 0xFF, 0xFF}, "writing out FF FF FF FF"},
  };
  for (const Case& test : cases) {
    forgetLog();
    EXPECT_EQ(patch(test.start), 0);
    EXPECT_EQ(machine.bytes("disk0s3", 28, 4), test.bytes);
    EXPECT_THAT(log(), StartsWith(std::string(test.text) + "Updating start sector offset on disk0s3\n"));
  }
}

TEST_F(BootSector, UnusedArgumentsChangeNothing) {
  EXPECT_EQ(update_start_sector(1, 0xFFFFFFFFFFFFFFFF, 409640, 0x123456789, "disk0s3"), 0);
  EXPECT_EQ(diskWithOldSerial(), patchedDisk());
}

TEST_F(BootSector, SerialIsFreshOnEveryRun) {
  EXPECT_EQ(patch(), 0);
  const ByteVector first = serial();
  EXPECT_EQ(patch(), 0);
  const ByteVector second = serial();
  EXPECT_NE(first, second);  // equal once in 2^64 runs
  EXPECT_NE(first, ByteVector(8, 0));
  EXPECT_NE(second, ByteVector(8, 0));
}

TEST_F(BootSector, FileSystemIsNotExamined) {
  // A FAT32 boot sector, and one without a file system: the same two fields are written.
  ByteVector fat(512);
  put(fat, 0, {0xEB, 0x58, 0x90, 'M', 'S', 'D', 'O', 'S', '5', '.', '0'});
  put(fat, 71, {'N', 'O', ' ', 'N', 'A', 'M', 'E', ' ', ' ', ' ', ' ', 'F', 'A', 'T', '3', '2', ' ', ' ', ' '});
  for (const ByteVector& before : {fat, ByteVector(512)}) {
    machine.setBytes("disk0s3", 0, before);
    EXPECT_EQ(patch(), 0);
    ByteVector expected = before;
    put(expected, 28, {0x28, 0x40, 0x06, 0x00});
    put(expected, 72, serial());
    EXPECT_EQ(machine.bytes("disk0s3", 0, 512), expected);
  }
}

TEST_F(BootSector, LongDevicePathIsUsedInFull) {
  const std::string name = "/dev/disk" + std::string(60, '7');
  machine.addDisk(name.substr(5), 4096, 512);
  EXPECT_EQ(update_start_sector(1, 0, 0x04030201, 0, name.c_str()), 0);
  EXPECT_THAT(machine.bytes(name, 28, 4), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(log(), "writing out 01 02 03 04Updating start sector offset on " + name + "\nUpdating UUID line:652\n");
}

// ----------------------------------------------------------------------------------------------------------- locks

TEST_F(BootSector, FallsBackToASharedLockWithoutAskingOrLogging) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  OutputCapture output(STDOUT_FILENO);
  const int result = patch();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(log(), kPatchLog);
  EXPECT_EQ(diskWithOldSerial(), patchedDisk());
  EXPECT_THAT(machine.journal(),
              ElementsAre("open disk0s3 write exclusive: EWOULDBLOCK", "open disk0s3 write shared",
                          "write disk0s3 28+4", "write disk0s3 72+8", "sync disk0s3", "close disk0s3"));
}

TEST_F(BootSector, FailsIfTheSharedLockFailsToo) {
  machine.lockElsewhere("disk0", DeviceLock::exclusive);
  EXPECT_EQ(patch(), -1);
  EXPECT_EQ(log(), "error writing disk0s3\nerror while opening file to write line:632");
  EXPECT_TRUE(untouched());
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(BootSector, UnknownDeviceFails) {
  EXPECT_EQ(update_start_sector(1, 0, 1, 0, "disk0s4"), -1);
  EXPECT_EQ(log(), "error writing disk0s4\nerror while opening file to write line:632");
}

// ---------------------------------------------------------------------------------------------------------- asking

TEST_F(BootSector, InteractiveAsksNothingIfTheExclusiveLockIsAvailable) {
  const Asked asked = ask("n\n");
  EXPECT_EQ(asked.printed, "");
  EXPECT_EQ(asked.result, 0);
  EXPECT_EQ(diskWithOldSerial(), patchedDisk());
}

TEST_F(BootSector, InteractiveContinuesWithASharedLockAfterALowerCaseY) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  for (const char* answer : {"y\n", "yes\n"}) {
    machine.setBytes("disk0s3", 0, ByteVector(512, 0x3C));
    forgetLog();
    const Asked asked = ask(answer);
    EXPECT_EQ(asked.printed, kAskShared);
    EXPECT_EQ(asked.result, 0);
    EXPECT_EQ(log(), kPatchLog);
    EXPECT_EQ(diskWithOldSerial(), patchedDisk());
  }
}

TEST_F(BootSector, InteractiveStopsOnAnyOtherAnswerAndLogsBothLines) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  for (const char* answer : {"Y\n", "n\n", "\n", ""}) {
    forgetLog();
    machine.clearJournal();
    const Asked asked = ask(answer);
    EXPECT_EQ(asked.printed, kAskShared) << answer;
    EXPECT_EQ(asked.result, -1) << answer;
    EXPECT_EQ(log(), "Exiting without writing line:624\nexiting without writing line:625\n") << answer;
    EXPECT_TRUE(untouched()) << answer;
    EXPECT_THAT(machine.journal(), ElementsAre("open disk0s3 write exclusive: EWOULDBLOCK")) << answer;
  }
}

TEST_F(BootSector, InteractiveFailsIfTheSharedLockFailsAfterAYes) {
  machine.lockElsewhere("disk0", DeviceLock::exclusive);
  const Asked asked = ask("y\n");
  EXPECT_EQ(asked.printed, kAskShared);
  EXPECT_EQ(asked.result, -1);
  EXPECT_EQ(log(), "error writing disk0s3\nerror while opening file to write line:632");
  EXPECT_TRUE(untouched());
}

// ---------------------------------------------------------------------------------------------------------- faults

constexpr const char* kBeforeTheFirstWrite =
    "writing out 28 40 06 00"
    "Updating start sector offset on disk0s3\n";

TEST_F(BootSector, FailedFirstWriteIsReportedAndNothingElseIsTried) {
  machine.fail("disk0s3", Operation::write, EIO);
  OutputCapture errors(STDERR_FILENO);
  const int result = patch();
  EXPECT_EQ(errors.text(), systemError("Failed to write 4 byte start sector", EIO));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log(), kBeforeTheFirstWrite);
  EXPECT_TRUE(untouched());
  EXPECT_THAT(machine.writes(), ElementsAre("write disk0s3 28+4: EIO"));
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(BootSector, FailedSecondWriteIsReported) {
  machine.fail("disk0s3", Operation::write, EIO, 1);
  OutputCapture errors(STDERR_FILENO);
  const int result = patch();
  EXPECT_EQ(errors.text(), systemError("Failed to write 8 byte uuid", EIO));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log(), kPatchLog);
  EXPECT_EQ(machine.bytes("disk0", 0, kDisk), patchedDisk());  // the start sector is new, the serial is old
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(BootSector, ShortFirstWriteIsReported) {
  for (const size_t count : {size_t{0}, size_t{1}, size_t{3}}) {
    machine.shortenWrites("disk0s3", count);
    OutputCapture errors(STDERR_FILENO);
    errno = ENOENT;  // a stale error, which must not be reported
    const int result = patch();
    EXPECT_EQ(errors.text(), systemError("Failed to write 4 byte start sector", ENOSPC)) << count;
    EXPECT_EQ(result, -1) << count;
    EXPECT_EQ(serial(), ByteVector(8, 0x3C)) << count;
    EXPECT_EQ(machine.openCount(), 0U) << count;
  }
}

TEST_F(BootSector, ShortSecondWriteIsReported) {
  for (const size_t count : {size_t{4}, size_t{7}}) {
    machine.shortenWrites("disk0s3", count);
    OutputCapture errors(STDERR_FILENO);
    errno = ENOENT;  // a stale error, which must not be reported
    const int result = patch();
    EXPECT_EQ(errors.text(), systemError("Failed to write 8 byte uuid", ENOSPC)) << count;
    EXPECT_EQ(result, -1) << count;
    EXPECT_EQ(machine.openCount(), 0U) << count;
  }
}

TEST_F(BootSector, FailedSyncIsReported) {
  machine.fail("disk0s3", Operation::sync, EIO);
  OutputCapture errors(STDERR_FILENO);
  const int result = patch();
  EXPECT_THAT(errors.text(), MatchesRegex("[^\n]+: [^\n]+\n"));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log(), kPatchLog);
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(BootSector, FailedCloseIsIgnored) {
  machine.fail("disk0s3", Operation::close, EIO);
  EXPECT_EQ(patch(), 0);
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(BootSector, DeviceTooSmallForTheFieldsFails) {
  struct Case {
    uint64_t size;
    const char* message;
  };
  constexpr Case kCases[] = {{0, "Failed to write 4 byte start sector"},
                             {28, "Failed to write 4 byte start sector"},
                             {31, "Failed to write 4 byte start sector"},
                             {32, "Failed to write 8 byte uuid"},
                             {79, "Failed to write 8 byte uuid"}};
  for (const Case& test : kCases) {
    machine.addDisk("tiny", test.size, 512);
    OutputCapture errors(STDERR_FILENO);
    errno = ENOENT;
    const int result = update_start_sector(1, 0, 409640, 0, "tiny");
    EXPECT_EQ(errors.text(), systemError(test.message, ENOSPC)) << test.size;
    EXPECT_EQ(result, -1) << test.size;
    EXPECT_EQ(machine.openCount(), 0U) << test.size;
  }
  machine.addDisk("tiny", 80, 512);
  EXPECT_EQ(update_start_sector(1, 0, 409640, 0, "tiny"), 0);
}

}  // namespace
}  // namespace vorlix::test
