// SPDX-License-Identifier: Apache-2.0
//
// Restores saved boot code to a volume, and sets the owner of a saved file.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/unit/support/BootRecordFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RestoreVBRTest : public BootRecordsTest {
 protected:
  RestoreVBRTest() {
    addVolume("disk0s3", "/Volumes/Windows", true);
    makeFile("saved", saved);
  }

  const ByteVector saved = patternBytes(kVBRSize, 77);
  const std::string unmounting = "Unmounting disk /dev/disk0s3\n";
};

TEST_F(RestoreVBRTest, BytesGoAfterTheParameterBlockAndNowhereElse) {
  const int before = openDescriptors();
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), 0);
  expectDisk(200 * 512 + 84, saved);
  EXPECT_EQ(log(), unmounting);
  EXPECT_THAT(openAndClose(), ElementsAre("open disk0s3 write", "close disk0s3"));
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("unmount disk0s3"));
  EXPECT_FALSE(machine.isMounted("disk0s3"));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(keptOpenCount(), 0U);
  EXPECT_EQ(bytesOf(file), saved);
}

TEST_F(RestoreVBRTest, SavedRecordIsRestoredToAVolumeOfAnotherSize) {
  machine.addSlice("disk0", 4, 400, 16);  // just the boot area
  const std::string copy = folder / "copy";
  EXPECT_EQ(write_vbr_to_file("disk0s3", copy.c_str()), 0);
  EXPECT_EQ(restore_vbr_to_device(copy.c_str(), "disk0s4"), 0);
  expectDisk(400 * 512 + 84, vbr);
}

TEST_F(RestoreVBRTest, UnmountsBeforeOpeningTheDevice) {
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), 0);
  const Lines lines = journalOf({"unmount ", "open "});
  EXPECT_THAT(lines, ElementsAre("unmount disk0s3", "open disk0s3 write"));
}

TEST_F(RestoreVBRTest, RefusedUnmountIsIgnored) {
  machine.refuseUnmount("disk0s3", kDissentBusy);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), 0);
  expectDisk(200 * 512 + 84, saved);
  EXPECT_TRUE(machine.isMounted("disk0s3"));
}

TEST_F(RestoreVBRTest, OnlyTheNeededPartOfALongerFileIsRead) {
  ByteVector longer = saved;
  longer.resize(20000, 0xEE);
  makeFile("saved", longer);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), 0);
  expectDisk(200 * 512 + 84, saved);
}

TEST_F(RestoreVBRTest, MissingFileStillUnmountsFirst) {
  const std::string missing = folder / "missing";
  EXPECT_EQ(restore_vbr_to_device(missing.c_str(), "/dev/disk0s3"), -1);
  EXPECT_EQ(log(), unmounting + missing + " does not exist\n");
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("unmount disk0s3"));
  EXPECT_FALSE(machine.isMounted("disk0s3"));
  EXPECT_THAT(deviceLines(), IsEmpty());
}

TEST_F(RestoreVBRTest, FileThatCannotBeOpenedReturnsMinusTwo) {
  const std::string path = folder / "socket";  // exists, but open() fails on it
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, path.c_str());
  const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(restore_vbr_to_device(path.c_str(), "/dev/disk0s3"), -2);
  close(descriptor);
  EXPECT_EQ(log(), unmounting + "could not open " + path + "\n");
  EXPECT_THAT(deviceLines(), IsEmpty());
}

TEST_F(RestoreVBRTest, ShortFileReturnsMinusThreeAndStaysOpen) {
  size_t kept = 0;
  for (const size_t size : {size_t{0}, size_t{1}, kVBRSize - 1}) {
    makeFile("saved", patternBytes(size));
    forgetLog();
    EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), -3) << size;
    EXPECT_EQ(log(), unmounting + "could not read VBR file data");
    EXPECT_EQ(keptOpenCount(), ++kept);
  }
  EXPECT_THAT(deviceLines(), IsEmpty());
  expectDisk();
}

TEST_F(RestoreVBRTest, DeviceThatCannotBeOpenedReturnsMinusFiveAndPrintsTheReason) {
  const struct {
    const char* device;
    int error;
  } cases[] = {{"/dev/disk9", ENOENT}, {"/dev/disk0s3", EACCES}};
  machine.fail("disk0s3", Operation::open, EACCES);
  for (const auto& one : cases) {
    forgetLog();
    OutputCapture errors(STDERR_FILENO);
    const int32_t result = restore_vbr_to_device(file.c_str(), one.device);
    EXPECT_EQ(errors.text(), std::string("Error opening in_device: ") + std::strerror(one.error) + "\n");
    EXPECT_EQ(result, -5);
    EXPECT_EQ(log(), "Unmounting disk " + std::string(one.device) + "\ncould not open " + one.device +
                         " for writing out VBR\n");
  }
  EXPECT_EQ(keptOpenCount(), 0U);
  expectDisk();
}

TEST_F(RestoreVBRTest, FailedSeekReturnsMinusSix) {
  machine.fail("disk0s3", Operation::write, ESPIPE);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), -6);
  EXPECT_EQ(log(), unmounting + "could not seek /dev/disk0s3\n");
  expectDisk();
  EXPECT_EQ(keptOpenCount(), 1U);
}

TEST_F(RestoreVBRTest, FailedWriteReturnsMinusSevenAndLeavesTheDeviceOpen) {
  machine.fail("disk0s3", Operation::write, EIO);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), -7);
  EXPECT_EQ(log(), unmounting + "could not write VBR to device");
  expectDisk();
  EXPECT_EQ(keptOpenCount(), 1U);
  EXPECT_EQ(machine.openCount(), 1U);
}

TEST_F(RestoreVBRTest, FailedSyncReturnsMinusSeven) {
  machine.fail("disk0s3", Operation::sync, EIO);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), -7);
  EXPECT_EQ(log(), unmounting + "could not write VBR to device");
}

TEST_F(RestoreVBRTest, FailedCloseOfTheDeviceIsIgnored) {
  machine.fail("disk0s3", Operation::close, EIO);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), 0);
  expectDisk(200 * 512 + 84, saved);
}

TEST_F(RestoreVBRTest, ShortWriteReturnsMinusSeven) {
  machine.shortenWrites("disk0s3", 1000);
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "/dev/disk0s3"), -7);
  EXPECT_EQ(log(), unmounting + "could not write VBR to device");
}

TEST_F(RestoreVBRTest, ShortDeviceReturnsMinusSevenAndNothingBeyondItIsWritten) {
  EXPECT_EQ(restore_vbr_to_device(file.c_str(), "disk0s1"), -7);
  EXPECT_EQ(log(), "Unmounting disk disk0s1\ncould not write VBR to device");
  const size_t start = 40 * 512;
  const ByteVector now = machine.bytes("disk0", 0, diskBytes.size());
  EXPECT_TRUE(slice(now, 0, start + 84) == slice(diskBytes, 0, start + 84));
  const size_t end = start + 15 * 512;
  EXPECT_TRUE(slice(now, end, now.size() - end) == slice(diskBytes, end, now.size() - end));
}

// ---------------------------------------------------------------------------------------------------------- ownership

using ChangeOwnershipTest = BootRecordsTest;

struct stat statusOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}

TEST_F(ChangeOwnershipTest, OwnFileGetsTheModeWhateverItWas) {
  makeFile("saved", {1});
  for (const mode_t mode : {0600U, 0777U, 04755U, 0400U}) {
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    EXPECT_EQ(change_ownership(file.c_str(), getuid(), getgid()), 0);
    const struct stat status = statusOf(file);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_EQ(status.st_uid, getuid());
    EXPECT_EQ(status.st_gid, getgid());
  }
  EXPECT_EQ(log(), "");
}

TEST_F(ChangeOwnershipTest, OwnerAndGroupAreChanged) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may give files away";
  makeFile("saved", {1});
  EXPECT_EQ(change_ownership(file.c_str(), 1234, 4321), 0);
  const struct stat status = statusOf(file);
  EXPECT_EQ(status.st_uid, 1234U);
  EXPECT_EQ(status.st_gid, 4321U);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(ChangeOwnershipTest, MissingPathFailsAtTheOwnerChange) {
  makeFile("other", {1});
  ASSERT_EQ(chmod((folder / "other").c_str(), 0600), 0);
  EXPECT_EQ(change_ownership(file.c_str(), getuid(), getgid()), -1);
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(statusOf(folder / "other").st_mode & 07777, 0600U);
  EXPECT_EQ(log(), "");
}

TEST_F(ChangeOwnershipTest, RefusedOwnerChangeLeavesTheModeUnchanged) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become somebody else";
  makeFile("saved", {1});
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  ASSERT_EQ(chmod((folder / ".").c_str(), 0755), 0);
  ASSERT_EQ(seteuid(65534), 0);
  const int32_t result = change_ownership(file.c_str(), 65534, 65534);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(result, -1);
  const struct stat status = statusOf(file);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(status.st_uid, 0U);
}

}  // namespace
}  // namespace vorlix::test
