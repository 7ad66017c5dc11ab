// SPDX-License-Identifier: Apache-2.0
//
// Device files of the system itself: paths that are not disks, links, locks, and images with wrong or truncated tables.
#include <Vorlix/platform/DeviceFile.h>
#include <sys/stat.h>

#include <limits>

#include "DeviceCalls.h"

namespace vorlix::contract {
namespace {

class NativeDeviceFile : public testing::Test {
 protected:
  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access = DeviceAccess::readOnly,
                                     DeviceLock lock = DeviceLock::none) const {
    return nativePlatform().deviceFile->open(path, access, lock);
  }

  void expectRefused(const std::string& path, std::set<int> reasons) const {
    const HangGuard guard;
    for (const DeviceAccess access : {DeviceAccess::readOnly, DeviceAccess::readWrite}) {
      for (const DeviceLock lock : {DeviceLock::none, DeviceLock::shared, DeviceLock::exclusive}) {
        const std::set<int> before = openDescriptors();
        errno = 0;
        const auto device = open(path, access, lock);
        const int seen = errno;
        EXPECT_FALSE(device) << path;
        EXPECT_EQ(reasons.count(seen), 1U) << path << ": " << std::strerror(seen);
        EXPECT_EQ(openDescriptors(), before) << path;
      }
    }
  }

  std::string usualImage() const {
    const std::string path = folder_ / "disk.img";
    writeUsualImage(path, 512);
    return path;
  }

  TemporaryFolder folder_;
};

TEST_F(NativeDeviceFile, AcceptsPathsOfAnyLength) {
  const std::string path = folder_ / (std::string(200, 'd') + ".img");
  writeUsualImage(path, 512);
  const auto disk = open(path);
  const auto slice = open(path + "s3");
  ASSERT_TRUE(disk);
  ASSERT_TRUE(slice);
  EXPECT_EQ(readFrom(*slice, 0, 512), pattern(200 * 512, 512));
}

TEST_F(NativeDeviceFile, RefusesAFolder) {
  expectRefused(folder_.path().string(), {EISDIR});
}

TEST_F(NativeDeviceFile, RefusesASliceOfAFolder) {
  expectRefused(folder_.path().string() + "s1", {EISDIR, ENOENT, ENOTDIR});
}

TEST_F(NativeDeviceFile, RefusesAFIFOWithoutBlocking) {
  const std::string path = folder_ / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const PromptnessCheck prompt;
  expectRefused(path, {ENOTBLK, EINVAL, ESPIPE});
}

TEST_F(NativeDeviceFile, RefusesACharacterDevice) {
  expectRefused("/dev/null", {ENOTBLK, ENODEV, ENOTTY});
}

TEST_F(NativeDeviceFile, RefusesADanglingLink) {
  const std::string link = folder_ / "link";
  std::filesystem::create_symlink(folder_ / "nothing", link);
  expectRefused(link, {ENOENT});
}

TEST_F(NativeDeviceFile, FollowsALinkToADisk) {
  const std::string link = folder_ / "link";
  std::filesystem::create_symlink(usualImage(), link);
  const auto slice = open(link + "s1");
  ASSERT_TRUE(slice);
  EXPECT_EQ(readFrom(*slice, 0, 512), pattern(40 * 512, 512));
}

TEST_F(NativeDeviceFile, AnExistingFileTakesPrecedenceOverASlice) {
  const std::string path = usualImage();
  writeImage(path + "s1", {1, 2, 3}, 3);
  const auto device = open(path + "s1");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->size(), 3U);
  EXPECT_EQ(readFrom(*device, 0, 100), (Buffer{1, 2, 3}));
}

TEST_F(NativeDeviceFile, OneSyncIsEnoughForTheSlicesOfOneImage) {
  const std::string path = usualImage();
  const std::string other = folder_ / "other.img";
  writeUsualImage(other, 512);
  const auto disk = open(path, DeviceAccess::readWrite);
  const auto slice = open(path + "s3", DeviceAccess::readWrite);
  const auto elsewhere = open(other, DeviceAccess::readWrite);
  ASSERT_TRUE(disk && slice && elsewhere);
  EXPECT_FALSE(disk->isSyncedWith(*elsewhere));
  EXPECT_FALSE(slice->isSyncedWith(*elsewhere));
  EXPECT_TRUE(disk->isSyncedWith(*slice));
  EXPECT_TRUE(slice->isSyncedWith(*disk));
  ASSERT_EQ(slice->close(), 0);
  EXPECT_FALSE(disk->isSyncedWith(*slice));
}

TEST_F(NativeDeviceFile, DescriptorsAreNotInherited) {
  const std::string path = usualImage();
  const std::set<int> before = openDescriptors();
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::exclusive);
  const auto slice = open(path + "s3", DeviceAccess::readOnly);
  ASSERT_TRUE(disk);
  ASSERT_TRUE(slice);
  size_t opened = 0;
  for (const int descriptor : openDescriptors()) {
    if (before.count(descriptor) != 0) continue;
    ++opened;
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
  }
  EXPECT_GE(opened, 2U);
}

TEST_F(NativeDeviceFile, ADeviceNeverGetsTheNumberOfAStandardStream) {
  const std::string path = usualImage();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    constexpr int kNotOpened = 100;
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(stream);
    int taken = 0;
    for (const DeviceLock lock : {DeviceLock::none, DeviceLock::exclusive}) {
      const auto device = open(path, DeviceAccess::readWrite, lock);
      if (!device) _exit(kNotOpened);
      for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) taken += fcntl(stream, F_GETFD) >= 0;
    }
    _exit(taken);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "the number of descriptors from 0 to 2 that the device uses after all three were closed";
}

TEST_F(NativeDeviceFile, ALockOnASliceAppliesToTheWholeDisk) {
  const std::string path = usualImage();
  auto slice = open(path + "s3", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(slice);
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::shared));
  EXPECT_EQ(slice->close(), 0);
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, ASharedLockExcludesOnlyWriters) {
  const std::string path = usualImage();
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::shared);
  ASSERT_TRUE(disk);
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::shared));
}

TEST_F(NativeDeviceFile, WithoutALockOtherProcessesCanLock) {
  const std::string path = usualImage();
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::none);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, ALockLastsUntilItsLastHolderCloses) {
  const std::string path = usualImage();
  auto disk = open(path, DeviceAccess::readWrite, DeviceLock::exclusive);
  auto slice = open(path + "s1", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(disk);
  ASSERT_TRUE(slice);
  disk.reset();
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::shared));
  slice.reset();
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, AFailedOpenKeepsNoLock) {
  const std::string path = usualImage();
  EXPECT_FALSE(open(path + "s2", DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, AProcessesOwnSharedLockIsNotConvertedToAnExclusiveOne) {
  const HangGuard guard;
  const PromptnessCheck prompt;
  const std::string path = usualImage();
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::shared);
  ASSERT_TRUE(disk);
  const std::set<int> before = openDescriptors();
  errno = 0;
  EXPECT_FALSE(open(path, DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, EWOULDBLOCK);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(NativeDeviceFile, TwoNamesOfOneDiskShareItsLock) {
  const std::string path = usualImage();
  const std::string link = folder_ / "link";
  std::filesystem::create_hard_link(path, link);
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open(link, DeviceAccess::readWrite, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, AReadOnlyDiskIsRefusedOnlyForWriting) {
  const std::string path = usualImage();
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  std::filesystem::permissions(path, std::filesystem::perms(0444));
  const uid_t before = geteuid();
  constexpr uid_t kNobody = 65534;
  const uid_t ordinary = before == 0 ? kNobody : before;
  ASSERT_EQ(seteuid(ordinary), 0);
  const auto readable = open(path);
  errno = 0;
  const auto writable = open(path, DeviceAccess::readWrite);
  const int reason = errno;
  ASSERT_EQ(seteuid(before), 0);
  EXPECT_TRUE(readable);
  EXPECT_FALSE(writable);
  EXPECT_EQ(reason, EACCES);
}

// ------------------------------------------------------------------------------- images with wrong or truncated tables

TEST_F(NativeDeviceFile, AnImageOfAnySizeCanBeRead) {
  for (const uint64_t size : {0U, 1U, 100U, 512U, 513U}) {
    const std::string path = folder_ / ("size" + std::to_string(size));
    writeImage(path, {}, size);
    const auto device = open(path);
    ASSERT_TRUE(device) << size;
    EXPECT_EQ(device->size(), size);
    EXPECT_EQ(readFrom(*device, 0, 1000).size(), size);
    expectRefused(path + "s1", {ENOENT});
  }
}

TEST_F(NativeDeviceFile, ASliceIsTruncatedAtTheEndOfTheDisk) {
  const std::string path = folder_ / "cut.img";
  writeImage(path, gptOf(512, 300, {{1, 200, 999}, {2, 200, std::numeric_limits<uint64_t>::max()}}), 300 * 512);
  for (const char* suffix : {"s1", "s2"}) {
    const auto device = open(path + suffix, DeviceAccess::readWrite);
    ASSERT_TRUE(device) << suffix;
    EXPECT_EQ(device->size(), 100U * 512);
    const Buffer bytes(512, 0xEE);
    EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), 100 * 512), 0);
  }
  EXPECT_EQ(std::filesystem::file_size(path), 300U * 512);
}

TEST_F(NativeDeviceFile, ASliceThatStartsBeyondTheEndOrEndsBeforeItsStartIsRefused) {
  const std::string path = folder_ / "past.img";
  writeImage(path,
             gptOf(512, 300,
                   {{1, 300, 400},
                    {2, uint64_t{1} << 33, (uint64_t{1} << 33) + 100},
                    {3, uint64_t{1} << 55, uint64_t{1} << 56},  // 2^64 bytes, which wraps around to 0
                    {4, 250, 249}}),
             300 * 512);
  for (const char* suffix : {"s1", "s2", "s3", "s4"}) expectRefused(path + suffix, {ENOENT});
}

TEST_F(NativeDeviceFile, AHeaderThatClaimsTooMuchIsLimitedToTheDisk) {
  Buffer bytes = gptOf(512, 300, {{1, 100, 199}});
  put(bytes, 512 + 80, 4, 0xFFFFFFFF);
  const std::string path = folder_ / "many.img";
  writeImage(path, bytes, 300 * 512);
  const auto device = open(path + "s1");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->size(), 100U * 512);
  expectRefused(path + "s4294967295", {ENOENT});
  for (const uint64_t lba : {uint64_t{300}, uint64_t{1} << 32, uint64_t{1} << 55, ~uint64_t{0}}) {
    put(bytes, 512 + 72, 8, lba);
    writeImage(path, bytes, 300 * 512);
    expectRefused(path + "s1", {ENOENT});
  }
}

TEST_F(NativeDeviceFile, ATruncatedTableHasTheRemainingSlices) {
  Buffer bytes = gptOf(512, 100000, {{1, 4, 9}, {8, 4, 9}});
  bytes.resize(2 * 512 + 2 * 512);  // entries 1 to 8
  const std::string path = folder_ / "truncated.img";
  writeImage(path, bytes, 2048 + 100);
  EXPECT_TRUE(open(path + "s1") == nullptr);  // it starts where the disk ends
  writeImage(path, bytes, 2048 + 512);
  const auto device = open(path + "s8");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->size(), 512U);
  expectRefused(path + "s9", {ENOENT});
}

TEST_F(NativeDeviceFile, WithoutAGPTTheSlotsOfTheMBRAreTheSlices) {
  Buffer bytes(512);
  put(bytes, 446 + 4, 1, 0x07);
  put(bytes, 446 + 8, 4, 40);
  put(bytes, 446 + 12, 4, 20);
  put(bytes, 462 + 8, 4, 100);  // slot 2: type 0
  put(bytes, 462 + 12, 4, 20);
  put(bytes, 510, 2, 0xAA55);
  const std::string path = folder_ / "mbr.img";
  writeImage(path, bytes, 300 * 512);
  const auto device = open(path + "s1");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->size(), 20U * 512);
  for (const char* suffix : {"s2", "s3", "s4", "s5"}) expectRefused(path + suffix, {ENOENT});
  put(bytes, 510, 2, 0);
  writeImage(path, bytes, 300 * 512);
  expectRefused(path + "s1", {ENOENT});
}

}  // namespace
}  // namespace vorlix::contract
