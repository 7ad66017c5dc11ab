// SPDX-License-Identifier: Apache-2.0
//
// Boot code of volumes and disks, saved to files.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "tests/unit/support/BootRecordFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;

/// Limits this process's files to `size` bytes. A write beyond the limit fails instead of ending the process.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) {
    getrlimit(RLIMIT_FSIZE, &before_);
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = before_;
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_ = {};
  void (*handler_)(int) = SIG_DFL;
};

// --------------------------------------------------------------------------------------------- a volume's boot record

using SaveVBRTest = BootRecordsTest;

TEST_F(SaveVBRTest, FileHoldsTheBytesAfterTheParameterBlock) {
  const int before = openDescriptors();
  EXPECT_EQ(write_vbr_to_file("/dev/disk0s3", file.c_str()), 0);
  EXPECT_EQ(bytesOf(file), vbr);
  EXPECT_EQ(log(), "writing vbr from volume /dev/disk0s3 to " + file + "\n");
  EXPECT_THAT(openAndClose(), ElementsAre("open disk0s3 write", "close disk0s3"));
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(keptOpenCount(), 0U);
  EXPECT_THAT(mountsAndUnmounts(), IsEmpty());
}

TEST_F(SaveVBRTest, DeviceOfExactlyTheBootAreaIsEnough) {
  machine.addSlice("disk0", 4, 400, 16);
  EXPECT_EQ(write_vbr_to_file("disk0s4", file.c_str()), 0);
  EXPECT_EQ(bytesOf(file), slice(diskBytes, 400 * 512 + 84, kVBRSize));
}

TEST_F(SaveVBRTest, FileGetsTheProcessesDefaultPermissions) {
  const mode_t before = umask(027);
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), 0);
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);  // 0666 without 027
}

TEST_F(SaveVBRTest, ExistingFileAndTheDeviceStayUntouched) {
  makeFile("saved", {'o', 'l', 'd'});
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), -1);
  EXPECT_EQ(contentOf(file), "old");
  EXPECT_EQ(log(), "writing vbr from volume disk0s3 to " + file + "\n" + exists());
  EXPECT_THAT(deviceLines(), IsEmpty());

  forgetLog();
  EXPECT_EQ(write_vbr_to_file("disk9", file.c_str()), -1);  // the file is checked first
  EXPECT_EQ(log(), "writing vbr from volume disk9 to " + file + "\n" + exists());
}

TEST_F(SaveVBRTest, SecondSaveIsRefused) {
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), 0);
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), -1);
  EXPECT_EQ(bytesOf(file), vbr);
}

TEST_F(SaveVBRTest, FailedCloseOfTheDeviceIsIgnored) {
  machine.fail("disk0s3", Operation::close, EIO);
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), 0);
  EXPECT_EQ(bytesOf(file), vbr);
}

TEST_F(SaveVBRTest, DeviceThatCannotBeOpenedReturnsMinusOne) {
  EXPECT_EQ(write_vbr_to_file("disk9", file.c_str()), -1);
  EXPECT_EQ(log(), "writing vbr from volume disk9 to " + file + "\ncould not open disk9\n");
  forgetLog();
  machine.fail("disk0s3", Operation::open, EACCES);
  EXPECT_EQ(write_vbr_to_file("disk0s3", file.c_str()), -1);
  EXPECT_EQ(log(), "writing vbr from volume disk0s3 to " + file + "\ncould not open disk0s3\n");
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SaveVBRTest, FailedSeekReturnsMinusTwo) {
  machine.fail("disk0s3", Operation::read, ESPIPE);
  OutputCapture errors(STDERR_FILENO);
  const int32_t result = write_vbr_to_file("disk0s3", file.c_str());
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(result, -2);
  EXPECT_EQ(log(), "writing vbr from volume disk0s3 to " + file + "\ncould not seek disk0s3\n");
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(keptOpenCount(), 1U);
  EXPECT_EQ(machine.openCount(), 1U);
}

TEST_F(SaveVBRTest, ShortDeviceReturnsMinusThreeWithoutAFile) {
  OutputCapture errors(STDERR_FILENO);
  errno = ENOENT;  // a stale error, which must not be reported
  const int32_t result = write_vbr_to_file("disk0s1", file.c_str());
  EXPECT_EQ(errors.text(), std::string("error reading VBR data\n: ") + std::strerror(EIO) + "\n");
  EXPECT_EQ(result, -3);
  EXPECT_EQ(log(), "writing vbr from volume disk0s1 to " + file + "\nerror reading VBR data on device disk0s1\n");
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(keptOpenCount(), 1U);
  EXPECT_EQ(machine.openCount(), 1U);
  closeKeptOpen();
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(SaveVBRTest, FailedReadReturnsMinusThreeAndPrintsTheReason) {
  machine.fail("disk0s3", Operation::read, EIO);
  OutputCapture errors(STDERR_FILENO);
  const int32_t result = write_vbr_to_file("disk0s3", file.c_str());
  EXPECT_EQ(errors.text(), std::string("error reading VBR data\n: ") + std::strerror(EIO) + "\n");
  EXPECT_EQ(result, -3);
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(machine.openCount(), 1U);
}

TEST_F(SaveVBRTest, FileThatCannotBeOpenedReturnsMinusFourAndTheDeviceIsClosed) {
  const std::string elsewhere = folder / "no folder/saved";
  EXPECT_EQ(write_vbr_to_file("disk0s3", elsewhere.c_str()), -4);
  EXPECT_EQ(log(), "writing vbr from volume disk0s3 to " + elsewhere + "\ncould not open " + elsewhere + "\n");
  EXPECT_THAT(openAndClose(), ElementsAre("open disk0s3 write", "close disk0s3"));
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(SaveVBRTest, FailedWriteOfTheFileReturnsMinusFive) {
  int32_t result = 0;
  {
    const FileSizeLimit limit(4000);
    result = write_vbr_to_file("disk0s3", file.c_str());
  }
  EXPECT_EQ(result, -5);
  EXPECT_EQ(log(), "writing vbr from volume disk0s3 to " + file + "\nerror writing VBR data");
  EXPECT_LT(std::filesystem::file_size(file), 8108U);
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(keptOpenCount(), 1U);
  expectDisk();
}

// ----------------------------------------------------------------------------------------------- a disk's boot record

using SaveMBRTest = BootRecordsTest;
using SaveMBRDeathTest = BootRecordsTest;

TEST_F(SaveMBRTest, FileHoldsTheBootCodeOnly) {
  const int before = openDescriptors();
  EXPECT_EQ(write_mbr_to_file("/dev/disk0", file.c_str()), 0);
  EXPECT_EQ(bytesOf(file), slice(diskBytes, 0, kMBRSize));
  EXPECT_EQ(log(), "");
  EXPECT_THAT(openAndClose(), ElementsAre("open disk0 read shared", "close disk0"));
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(SaveMBRTest, AnotherProcessesSharedLockIsNoObstacle) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  EXPECT_EQ(write_mbr_to_file("disk0", file.c_str()), 0);
  EXPECT_EQ(bytesOf(file), slice(diskBytes, 0, kMBRSize));
}

TEST_F(SaveMBRTest, ExistingFileAndTheDeviceStayUntouched) {
  makeFile("saved", {'o', 'l', 'd'});
  EXPECT_EQ(write_mbr_to_file("disk0", file.c_str()), -1);
  EXPECT_EQ(contentOf(file), "old");
  EXPECT_EQ(log(), exists());
  EXPECT_EQ(write_mbr_to_file("disk9", file.c_str()), -1);  // the file is checked first, so the process continues
  EXPECT_THAT(deviceLines(), IsEmpty());
}

TEST_F(SaveMBRDeathTest, DeviceThatCannotBeOpenedEndsTheProcess) {
  const struct {
    const char* device;
    int error;
  } cases[] = {{"/dev/disk9", ENOENT}, {"disk1", EACCES}, {"disk0", EWOULDBLOCK}};
  machine.addDisk("disk1", 1000 * 512, 512);
  machine.fail("disk1", Operation::open, EACCES);
  machine.lockElsewhere("disk0", DeviceLock::exclusive);
  for (const auto& one : cases) {
    forgetLog();
    EXPECT_EXIT(write_mbr_to_file(one.device, file.c_str()), ExitedWithCode(255), "") << one.device;
    EXPECT_EQ(log(), "error writing " + std::string(one.device) + "\nerrno is " + std::to_string(one.error) + "\n");
    EXPECT_FALSE(std::filesystem::exists(file));
  }
}

TEST_F(SaveMBRTest, ShortOrUnreadableDeviceReturnsMinusOneAndStaysOpen) {
  machine.addDisk("disk1", 400, 512);
  machine.fail("disk0", Operation::read, EIO);
  size_t kept = 0;
  for (const char* device : {"disk1", "disk0"}) {
    OutputCapture errors(STDERR_FILENO);
    errno = ENOENT;  // a stale error, which must not be reported
    const int32_t result = write_mbr_to_file(device, file.c_str());
    EXPECT_EQ(errors.text(), std::string("error reading MBR data:: ") + std::strerror(EIO) + "\n") << device;
    EXPECT_EQ(result, -1) << device;
    EXPECT_EQ(keptOpenCount(), ++kept) << device;
    EXPECT_EQ(machine.openCount(), kept) << device;
  }
  EXPECT_EQ(log(), "");
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(SaveMBRTest, FailedReadPrintsTheReason) {
  machine.fail("disk0", Operation::read, EIO);
  OutputCapture errors(STDERR_FILENO);
  EXPECT_EQ(write_mbr_to_file("disk0", file.c_str()), -1);
  EXPECT_EQ(errors.text(), std::string("error reading MBR data:: ") + std::strerror(EIO) + "\n");
}

TEST_F(SaveMBRTest, FileThatCannotBeOpenedReturnsMinusOneAndTheDeviceIsClosed) {
  const std::string elsewhere = folder / "no folder/saved";
  EXPECT_EQ(write_mbr_to_file("disk0", elsewhere.c_str()), -1);
  EXPECT_EQ(log(), "could not open " + elsewhere + "\n");
  EXPECT_THAT(openAndClose(), ElementsAre("open disk0 read shared", "close disk0"));
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(SaveMBRTest, FailedWriteOfTheFileReturnsMinusOne) {
  int32_t result = 0;
  {
    const FileSizeLimit limit(100);  // more than the message, less than the boot code
    result = write_mbr_to_file("disk0", file.c_str());
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log(), "error writing MBR data");
  EXPECT_EQ(machine.openCount(), 0U);
}

}  // namespace
}  // namespace vorlix::test
