// SPDX-License-Identifier: Apache-2.0
//
// The contracts of platform/DeviceFile.h and platform/DeviceStream.h, on every machine that this one can be.
#include <Vorlix/platform/DeviceStream.h>
#include <sys/stat.h>

#include <chrono>
#include <limits>

#include "contract/DeviceWorlds.h"

namespace vorlix::contract {
namespace {

constexpr uint64_t kFarAway[] = {uint64_t{1} << 40, uint64_t{1} << 63, std::numeric_limits<int64_t>::max(),
                                 std::numeric_limits<uint64_t>::max()};

Buffer readFrom(DeviceHandle& device, uint64_t offset, size_t count) {
  Buffer bytes(count);
  const ssize_t done = device.readAt(bytes.data(), count, offset);
  if (done < 0) throw std::runtime_error(std::strerror(errno));
  bytes.resize(static_cast<size_t>(done));
  return bytes;
}

/// Runs out of a call that must not wait.
class PromptnessCheck {
 public:
  ~PromptnessCheck() {
    const auto passed = std::chrono::steady_clock::now() - start_;
    EXPECT_LT(passed, std::chrono::seconds(5)) << "the call waited";
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Ends the process if a call hangs for good, with a signal that the test's report names.
class HangGuard {
 public:
  HangGuard() { alarm(60); }
  ~HangGuard() { alarm(0); }
};

class DeviceFileContract : public OnEveryWorld {
 protected:
  uint64_t sliceOffset(uint32_t number) const { return sliceFirst(number) * world_->blockSize(); }
  uint64_t sliceSize() const { return kSliceBlocks * world_->blockSize(); }

  void expectRefused(const std::string& path, int reason, DeviceAccess access = DeviceAccess::readOnly) const {
    const size_t before = world_->openCount();
    errno = 0;
    const auto device = open(path, access);
    const int seen = errno;
    EXPECT_FALSE(device) << path;
    EXPECT_EQ(seen, reason) << path;
    EXPECT_EQ(world_->openCount(), before) << path << " left something open";
  }
};

// ------------------------------------------------------------------------------------------------- reading and sizes

TEST_P(DeviceFileContract, ReadsAWholeDisk) {
  const auto device = open(world_->disk());
  ASSERT_TRUE(device);
  const uint64_t offset = kPatternFirst * world_->blockSize();
  EXPECT_EQ(readFrom(*device, offset, 3000), pattern(offset, 3000));
  EXPECT_EQ(readFrom(*device, offset + 77, 1), pattern(offset + 77, 1));
}

TEST_P(DeviceFileContract, ReadsASliceFromItsOwnStart) {
  for (const uint32_t number : {1U, 3U}) {
    const auto device = open(world_->slice(number));
    ASSERT_TRUE(device) << number;
    EXPECT_EQ(readFrom(*device, 0, 1000), pattern(sliceOffset(number), 1000));
    EXPECT_EQ(readFrom(*device, 513, 4097), pattern(sliceOffset(number) + 513, 4097));
  }
}

TEST_P(DeviceFileContract, TellsTheSizeOfADiskAndOfASlice) {
  const auto disk = open(world_->disk());
  const auto slice = open(world_->slice(3));
  ASSERT_TRUE(disk);
  ASSERT_TRUE(slice);
  EXPECT_EQ(disk->size(), world_->diskSize());
  EXPECT_EQ(slice->size(), sliceSize());
}

TEST_P(DeviceFileContract, AReadIsShortAtTheEndOfADisk) {
  const auto device = open(world_->disk());
  ASSERT_TRUE(device);
  EXPECT_EQ(readFrom(*device, world_->diskSize() - 100, 300).size(), 100U);
  EXPECT_EQ(readFrom(*device, world_->diskSize(), 300).size(), 0U);
}

TEST_P(DeviceFileContract, AReadIsShortAtTheEndOfASlice) {
  const auto device = open(world_->slice(1));
  ASSERT_TRUE(device);
  const uint64_t last = sliceSize() - 100;
  EXPECT_EQ(readFrom(*device, last, 300), pattern(sliceOffset(1) + last, 100));
  EXPECT_EQ(readFrom(*device, sliceSize(), 300).size(), 0U);
}

TEST_P(DeviceFileContract, NothingIsReadFarPastTheEnd) {
  for (const std::string& name : {world_->disk(), world_->slice(3)}) {
    const auto device = open(name);
    ASSERT_TRUE(device);
    Buffer untouched(64, 0x5A);
    for (const uint64_t offset : kFarAway) EXPECT_EQ(device->readAt(untouched.data(), 64, offset), 0) << offset;
    EXPECT_EQ(untouched, Buffer(64, 0x5A));
  }
}

TEST_P(DeviceFileContract, AReadOfNoBytesIsEmpty) {
  const auto device = open(world_->slice(1));
  ASSERT_TRUE(device);
  uint8_t byte = 0x5A;
  EXPECT_EQ(device->readAt(&byte, 0, 0), 0);
  EXPECT_EQ(byte, 0x5A);
}

// --------------------------------------------------------------------------------------------------------- writing

TEST_P(DeviceFileContract, AWriteChangesItsBytesAndNoOthers) {
  Buffer expected = world_->allBytes();
  const Buffer bytes(700, 0xC3);
  const auto device = open(world_->slice(3), DeviceAccess::readWrite);
  ASSERT_TRUE(device);
  ASSERT_EQ(device->writeAt(bytes.data(), bytes.size(), 300), 700);
  EXPECT_EQ(readFrom(*device, 300, 700), bytes);
  EXPECT_EQ(device->sync(), 0);
  std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<std::ptrdiff_t>(sliceOffset(3) + 300));
  EXPECT_EQ(world_->allBytes(), expected);
}

TEST_P(DeviceFileContract, AWriteToTheFirstSectorOfADiskReachesIt) {
  Buffer expected = world_->allBytes();
  const Buffer bytes(512, 0x3C);
  const auto device = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(device);
  ASSERT_EQ(device->writeAt(bytes.data(), bytes.size(), 0), 512);
  EXPECT_EQ(device->sync(), 0);
  std::copy(bytes.begin(), bytes.end(), expected.begin());
  EXPECT_EQ(world_->allBytes(), expected);
}

TEST_P(DeviceFileContract, AWriteStopsAtTheEndOfASlice) {
  Buffer expected = world_->allBytes();
  const Buffer bytes(5000, 0xEE);
  const auto device = open(world_->slice(1), DeviceAccess::readWrite);
  ASSERT_TRUE(device);
  EXPECT_EQ(device->writeAt(bytes.data(), bytes.size(), sliceSize() - 10), 10);
  EXPECT_EQ(device->sync(), 0);
  std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(sliceOffset(1) + sliceSize() - 10), 10, uint8_t{0xEE});
  EXPECT_EQ(world_->allBytes(), expected);
}

TEST_P(DeviceFileContract, NothingIsWrittenPastTheEndOfASlice) {
  const Buffer expected = world_->allBytes();
  const Buffer bytes(512, 0xEE);
  const auto device = open(world_->slice(1), DeviceAccess::readWrite);
  ASSERT_TRUE(device);
  EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), sliceSize()), 0);
  for (const uint64_t offset : kFarAway) EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), offset), 0) << offset;
  // An offset that wraps around must not reach the start of the disk, either.
  EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), uint64_t{0} - sliceOffset(1)), 0);
  EXPECT_EQ(device->sync(), 0);
  EXPECT_EQ(world_->allBytes(), expected);
}

TEST_P(DeviceFileContract, ADiskDoesNotGrow) {
  const Buffer bytes(8192, 0xEE);
  const auto device = open(world_->disk(), DeviceAccess::readWrite);
  ASSERT_TRUE(device);
  EXPECT_EQ(device->writeAt(bytes.data(), bytes.size(), world_->diskSize() - 512), 512);
  EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), world_->diskSize()), 0);
  EXPECT_EQ(device->sync(), 0);
  EXPECT_EQ(device->size(), world_->diskSize());
  EXPECT_EQ(world_->bytes(0, static_cast<size_t>(world_->diskSize()) + 8192).size(), world_->diskSize());
  EXPECT_EQ(world_->bytes(world_->diskSize() - 512, 512), Buffer(512, 0xEE));
}

TEST_P(DeviceFileContract, AReadOnlyDeviceRefusesToWrite) {
  const Buffer expected = world_->allBytes();
  const Buffer bytes(512, 0xEE);
  const auto device = open(world_->disk(), DeviceAccess::readOnly, DeviceLock::exclusive);
  ASSERT_TRUE(device);
  EXPECT_EQ(device->writeAt(bytes.data(), bytes.size(), 0), -1);
  EXPECT_EQ(world_->allBytes(), expected);
}

// ----------------------------------------------------------------------------------------------- names and refusals

TEST_P(DeviceFileContract, ADiskThatIsNotThereIsRefused) {
  expectRefused(world_->disk() + "-missing", ENOENT);
  expectRefused(world_->disk() + "-missing", ENOENT, DeviceAccess::readWrite);
  expectRefused("/dev/no-such-disk", ENOENT);
  expectRefused("", ENOENT);
}

TEST_P(DeviceFileContract, ASliceThatTheDiskDoesNotHaveIsRefused) {
  for (const uint32_t number : {2U, 4U, 5U, 128U, 129U, 4294967295U}) {
    expectRefused(world_->slice(number), ENOENT);
    expectRefused(world_->slice(number), ENOENT, DeviceAccess::readWrite);
  }
}

TEST_P(DeviceFileContract, ANumberThatIsNoSliceNumberIsRefused) {
  for (const char* suffix : {"s0", "s", "s-1", "s3x", "s4294967299", "s18446744073709551619", "s3s1", "s 3"}) {
    expectRefused(world_->disk() + suffix, ENOENT);
  }
}

TEST_P(DeviceFileContract, ARefusedSliceReleasesTheLockThatWasAskedFor) {
  errno = 0;
  EXPECT_FALSE(open(world_->slice(2), DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, ENOENT);
  world_->lockElsewhere(DeviceLock::exclusive);
  world_->unlockElsewhere();
}

// --------------------------------------------------------------------------------------------------------- closing

TEST_P(DeviceFileContract, ClosesOnce) {
  const size_t before = world_->openCount();
  const auto device = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(device);
  EXPECT_GT(world_->openCount(), before);
  EXPECT_EQ(device->close(), 0);
  EXPECT_EQ(world_->openCount(), before);
  errno = 0;
  EXPECT_EQ(device->close(), -1);
  EXPECT_NE(errno, 0);
}

TEST_P(DeviceFileContract, DestroyingAHandleClosesIt) {
  const size_t before = world_->openCount();
  for (const DeviceLock lock : {DeviceLock::none, DeviceLock::shared, DeviceLock::exclusive}) {
    for (const std::string& name : {world_->disk(), world_->slice(3)}) {
      auto device = open(name, DeviceAccess::readWrite, lock);
      ASSERT_TRUE(device) << name;
      EXPECT_GT(world_->openCount(), before);
      device.reset();
      EXPECT_EQ(world_->openCount(), before) << name;
    }
  }
}

TEST_P(DeviceFileContract, ManyHandlesLeaveNothingOpen) {
  const size_t before = world_->openCount();
  for (int i = 0; i < 100; ++i) {
    const auto device = open(world_->slice(1), DeviceAccess::readWrite, DeviceLock::exclusive);
    ASSERT_TRUE(device) << i;
  }
  EXPECT_EQ(world_->openCount(), before);
}

// ----------------------------------------------------------------------------------------------------------- locks

struct LockCase {
  DeviceLock elsewhere;
  DeviceLock wanted;
  bool granted;
};

constexpr LockCase kLockCases[] = {
    {DeviceLock::shared, DeviceLock::none, true},       {DeviceLock::shared, DeviceLock::shared, true},
    {DeviceLock::shared, DeviceLock::exclusive, false}, {DeviceLock::exclusive, DeviceLock::none, true},
    {DeviceLock::exclusive, DeviceLock::shared, false}, {DeviceLock::exclusive, DeviceLock::exclusive, false},
};

TEST_P(DeviceFileContract, ALockOfAnotherProcessIsRespectedWithoutWaiting) {
  for (const LockCase& lockCase : kLockCases) {
    world_->lockElsewhere(lockCase.elsewhere);
    const size_t before = world_->openCount();
    for (const std::string& name : {world_->disk(), world_->slice(3)}) {
      SCOPED_TRACE(name + ": " + std::to_string(static_cast<int>(lockCase.elsewhere)) + " elsewhere, " +
                   std::to_string(static_cast<int>(lockCase.wanted)) + " wanted");
      const HangGuard guard;
      const PromptnessCheck prompt;
      errno = 0;
      auto device = open(name, DeviceAccess::readWrite, lockCase.wanted);
      const int reason = errno;
      EXPECT_EQ(device != nullptr, lockCase.granted);
      if (!lockCase.granted) {
        EXPECT_TRUE(reason == EWOULDBLOCK || reason == EBUSY) << std::strerror(reason);
      }
      device.reset();
      EXPECT_EQ(world_->openCount(), before);
    }
    world_->unlockElsewhere();
  }
}

TEST_P(DeviceFileContract, ALockThatAnotherProcessGaveUpCanBeHad) {
  world_->lockElsewhere(DeviceLock::exclusive);
  EXPECT_FALSE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
  world_->unlockElsewhere();
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
}

TEST_P(DeviceFileContract, AProcessSharesItsOwnLockWithItself) {
  const HangGuard guard;
  const PromptnessCheck prompt;
  const auto disk = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readOnly, DeviceLock::shared));
  EXPECT_TRUE(open(world_->slice(1), DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_TRUE(open(world_->slice(3), DeviceAccess::readWrite, DeviceLock::shared));
  EXPECT_TRUE(open(world_->slice(3), DeviceAccess::readWrite, DeviceLock::none));
}

TEST_P(DeviceFileContract, ASharedLockIsSharedWithinAProcessToo) {
  const HangGuard guard;
  const auto disk = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::shared);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readOnly, DeviceLock::shared));
  EXPECT_TRUE(open(world_->slice(1), DeviceAccess::readWrite, DeviceLock::shared));
}

TEST_P(DeviceFileContract, ASharedLockOfOnesOwnIsNotTurnedIntoAnExclusiveOne) {
  const HangGuard guard;
  {
    const auto disk = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::shared);
    ASSERT_TRUE(disk);
    errno = 0;
    EXPECT_FALSE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
    EXPECT_EQ(errno, EWOULDBLOCK);
  }
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
}

INSTANTIATE_TEST_SUITE_P(Worlds, DeviceFileContract, testing::ValuesIn(allWorlds()), worldName);

// --------------------------------------------------------------------------------------------------------- streams

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using OwnedStream = std::unique_ptr<FILE, CloseStream>;

class DeviceStreamContract : public OnEveryWorld {
 protected:
  OwnedStream streamOn(const std::string& path) const { return OwnedStream(streamOver(open(path))); }
};

TEST_P(DeviceStreamContract, ReadsFromTheStartOfTheDevice) {
  const OwnedStream stream = streamOn(world_->slice(3));
  ASSERT_TRUE(stream);
  Buffer bytes(5000);
  ASSERT_EQ(std::fread(bytes.data(), 1, bytes.size(), stream.get()), bytes.size());
  EXPECT_EQ(bytes, pattern(sliceFirst(3) * world_->blockSize(), 5000));
  EXPECT_EQ(ftello(stream.get()), 5000);
}

TEST_P(DeviceStreamContract, ReadsAWholeSliceAndThenItsEnd) {
  const OwnedStream stream = streamOn(world_->slice(1));
  ASSERT_TRUE(stream);
  const size_t size = kSliceBlocks * world_->blockSize();
  Buffer bytes(size + 100);
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), stream.get()), size);
  EXPECT_TRUE(std::feof(stream.get()));
  EXPECT_FALSE(std::ferror(stream.get()));
  bytes.resize(size);
  EXPECT_EQ(bytes, pattern(sliceFirst(1) * world_->blockSize(), size));
}

TEST_P(DeviceStreamContract, PositionsFromStartPlaceAndEnd) {
  const OwnedStream stream = streamOn(world_->slice(3));
  ASSERT_TRUE(stream);
  const uint64_t start = sliceFirst(3) * world_->blockSize();
  const auto size = static_cast<off_t>(kSliceBlocks * world_->blockSize());
  ASSERT_EQ(fseeko(stream.get(), 1234, SEEK_SET), 0);
  EXPECT_EQ(std::fgetc(stream.get()), patternAt(start + 1234));
  ASSERT_EQ(fseeko(stream.get(), 111, SEEK_CUR), 0);
  EXPECT_EQ(std::fgetc(stream.get()), patternAt(start + 1346));
  ASSERT_EQ(fseeko(stream.get(), -1, SEEK_END), 0);
  EXPECT_EQ(ftello(stream.get()), size - 1);
  EXPECT_EQ(std::fgetc(stream.get()), patternAt(start + static_cast<uint64_t>(size) - 1));
  EXPECT_EQ(std::fgetc(stream.get()), EOF);
}

TEST_P(DeviceStreamContract, PositionsPastTheEndReadAsTheEnd) {
  const OwnedStream stream = streamOn(world_->slice(3));
  ASSERT_TRUE(stream);
  const auto size = static_cast<off_t>(kSliceBlocks * world_->blockSize());
  for (const off_t offset : {size, size + 1, size + 100000, off_t{1} << 45, std::numeric_limits<off_t>::max()}) {
    ASSERT_EQ(fseeko(stream.get(), offset, SEEK_SET), 0) << offset;
    EXPECT_EQ(ftello(stream.get()), offset);
    EXPECT_EQ(std::fgetc(stream.get()), EOF) << offset;
    EXPECT_TRUE(std::feof(stream.get())) << offset;
    EXPECT_FALSE(std::ferror(stream.get())) << offset;
  }
  ASSERT_EQ(fseeko(stream.get(), 0, SEEK_SET), 0);
  EXPECT_EQ(std::fgetc(stream.get()), patternAt(sliceFirst(3) * world_->blockSize()));
}

TEST_P(DeviceStreamContract, APositionBeforeTheStartIsRefused) {
  const OwnedStream stream = streamOn(world_->disk());
  ASSERT_TRUE(stream);
  EXPECT_EQ(fseeko(stream.get(), -1, SEEK_SET), -1);
  EXPECT_EQ(fseeko(stream.get(), -1, SEEK_CUR), -1);
}

TEST_P(DeviceStreamContract, IsForReadingOnly) {
  const Buffer before = world_->allBytes();
  {
    const OwnedStream stream(streamOver(open(world_->disk(), DeviceAccess::readWrite)));
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::fputc('x', stream.get()), EOF);
    EXPECT_TRUE(std::ferror(stream.get()));
  }
  EXPECT_EQ(world_->allBytes(), before);
}

TEST_P(DeviceStreamContract, OwnsTheDeviceAndClosesIt) {
  const size_t before = world_->openCount();
  OwnedStream stream = streamOn(world_->disk());
  ASSERT_TRUE(stream);
  EXPECT_GT(world_->openCount(), before);
  EXPECT_EQ(std::fclose(stream.release()), 0);
  EXPECT_EQ(world_->openCount(), before);
}

INSTANTIATE_TEST_SUITE_P(Worlds, DeviceStreamContract, testing::ValuesIn(allWorlds()), worldName);

TEST(SimulatedDeviceStream, AReadThatFailsIsAnErrorOfTheStreamAndNotItsEnd) {
  SimulatedMachine machine;
  machine.addDisk("disk0", 1 << 20, 512);
  machine.fail("disk0", Operation::read, EIO);
  const OwnedStream stream(
      streamOver(machine.platform().deviceFile->open("disk0", DeviceAccess::readOnly, DeviceLock::none)));
  ASSERT_TRUE(stream);
  EXPECT_EQ(std::fgetc(stream.get()), EOF);
  EXPECT_TRUE(std::ferror(stream.get()));
  EXPECT_FALSE(std::feof(stream.get()));
}

// ----------------------------------------------------------------------------------------- the system's own devices

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

TEST_F(NativeDeviceFile, TakesPathsOfAnyLength) {
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

TEST_F(NativeDeviceFile, RefusesAFIFOWithoutWaitingForItsOtherSide) {
  const std::string path = folder_ / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const PromptnessCheck prompt;
  expectRefused(path, {ENOTBLK, EINVAL, ESPIPE});
}

TEST_F(NativeDeviceFile, RefusesACharacterDeviceThatIsNoDisk) {
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

TEST_F(NativeDeviceFile, AFileThatExistsIsTakenAsItIs) {
  const std::string path = usualImage();
  writeImage(path + "s1", {1, 2, 3}, 3);
  const auto device = open(path + "s1");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->size(), 3U);
  EXPECT_EQ(readFrom(*device, 0, 100), (Buffer{1, 2, 3}));
}

TEST_F(NativeDeviceFile, DescriptorsAreNotPassedToOtherPrograms) {
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

TEST_F(NativeDeviceFile, ALockOnASliceLiesOnTheWholeDisk) {
  const std::string path = usualImage();
  auto slice = open(path + "s3", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(slice);
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::shared));
  EXPECT_EQ(slice->close(), 0);
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
}

TEST_F(NativeDeviceFile, ASharedLockKeepsOnlyWritersOut) {
  const std::string path = usualImage();
  const auto disk = open(path, DeviceAccess::readWrite, DeviceLock::shared);
  ASSERT_TRUE(disk);
  EXPECT_FALSE(OtherProcessLock::couldBeHeld(path, DeviceLock::exclusive));
  EXPECT_TRUE(OtherProcessLock::couldBeHeld(path, DeviceLock::shared));
}

TEST_F(NativeDeviceFile, WithoutALockOthersMayHaveIt) {
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

TEST_F(NativeDeviceFile, ASharedLockOfOnesOwnIsNotTurnedIntoAnExclusiveOne) {
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

TEST_F(NativeDeviceFile, ADiskThatIsNotWritableIsRefusedForWritingOnly) {
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

// ----------------------------------------------------------------------------------- images that are not as they say

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

TEST_F(NativeDeviceFile, ASliceIsCutAtTheEndOfTheDisk) {
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

TEST_F(NativeDeviceFile, ASliceThatStartsPastTheEndOrEndsBeforeItsStartIsRefused) {
  const std::string path = folder_ / "past.img";
  writeImage(path,
             gptOf(512, 300,
                   {{1, 300, 400},
                    {2, uint64_t{1} << 33, (uint64_t{1} << 33) + 100},
                    {3, uint64_t{1} << 55, uint64_t{1} << 56},  // 2^64 bytes: wraps around to 0
                    {4, 250, 249}}),
             300 * 512);
  for (const char* suffix : {"s1", "s2", "s3", "s4"}) expectRefused(path + suffix, {ENOENT});
}

TEST_F(NativeDeviceFile, AHeaderThatClaimsTooMuchIsHeldToTheDisk) {
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

TEST_F(NativeDeviceFile, ATableCutShortHasTheSlicesThatAreThere) {
  Buffer bytes = gptOf(512, 100000, {{1, 4, 9}, {8, 4, 9}});
  bytes.resize(2 * 512 + 2 * 512);  // entries 1 to 8
  const std::string path = folder_ / "truncated.img";
  writeImage(path, bytes, 2048 + 100);
  EXPECT_TRUE(open(path + "s1") == nullptr);  // starts where the disk ends
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
