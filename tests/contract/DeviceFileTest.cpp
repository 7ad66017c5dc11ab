// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/DeviceFile.h, on every machine that is possible here.
#include <Vorlix/platform/DeviceFile.h>

#include <limits>

#include "DeviceCalls.h"

namespace vorlix::contract {
namespace {

constexpr uint64_t kFarAway[] = {uint64_t{1} << 40, uint64_t{1} << 63, std::numeric_limits<int64_t>::max(),
                                 std::numeric_limits<uint64_t>::max()};

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
    EXPECT_EQ(world_->openCount(), before) << path << " left a descriptor open";
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

TEST_P(DeviceFileContract, ReportsTheSizeOfADiskAndOfASlice) {
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

TEST_P(DeviceFileContract, NothingIsReadFarBeyondTheEnd) {
  for (const std::string& name : {world_->disk(), world_->slice(3)}) {
    const auto device = open(name);
    ASSERT_TRUE(device);
    Buffer untouched(64, 0x5A);
    for (const uint64_t offset : kFarAway) EXPECT_EQ(device->readAt(untouched.data(), 64, offset), 0) << offset;
    EXPECT_EQ(untouched, Buffer(64, 0x5A));
  }
}

TEST_P(DeviceFileContract, AReadOfZeroBytesIsEmpty) {
  const auto device = open(world_->slice(1));
  ASSERT_TRUE(device);
  uint8_t byte = 0x5A;
  EXPECT_EQ(device->readAt(&byte, 0, 0), 0);
  EXPECT_EQ(byte, 0x5A);
}

// --------------------------------------------------------------------------------------------------------- writing

TEST_P(DeviceFileContract, AWriteChangesOnlyItsOwnBytes) {
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

TEST_P(DeviceFileContract, AWriteToTheFirstSectorOfADiskWorks) {
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

TEST_P(DeviceFileContract, NothingIsWrittenBeyondTheEndOfASlice) {
  const Buffer expected = world_->allBytes();
  const Buffer bytes(512, 0xEE);
  const auto device = open(world_->slice(1), DeviceAccess::readWrite);
  ASSERT_TRUE(device);
  EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), sliceSize()), 0);
  for (const uint64_t offset : kFarAway) EXPECT_LE(device->writeAt(bytes.data(), bytes.size(), offset), 0) << offset;
  // An offset that wraps around must not reach the start of the disk either.
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

TEST_P(DeviceFileContract, AMissingDiskIsRefused) {
  expectRefused(world_->disk() + "-missing", ENOENT);
  expectRefused(world_->disk() + "-missing", ENOENT, DeviceAccess::readWrite);
  expectRefused("/dev/no-such-disk", ENOENT);
  expectRefused("", ENOENT);
}

TEST_P(DeviceFileContract, AMissingSliceIsRefused) {
  for (const uint32_t number : {2U, 4U, 5U, 128U, 129U, 4294967295U}) {
    expectRefused(world_->slice(number), ENOENT);
    expectRefused(world_->slice(number), ENOENT, DeviceAccess::readWrite);
  }
}

TEST_P(DeviceFileContract, AnInvalidSliceNumberIsRefused) {
  for (const char* suffix : {"s0", "s", "s-1", "s3x", "s4294967299", "s18446744073709551619", "s3s1", "s 3"}) {
    expectRefused(world_->disk() + suffix, ENOENT);
  }
}

TEST_P(DeviceFileContract, ARefusedSliceReleasesTheLock) {
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

TEST_P(DeviceFileContract, AnotherProcessesLockIsRespectedWithoutWaiting) {
  for (const LockCase& lockCase : kLockCases) {
    world_->lockElsewhere(lockCase.elsewhere);
    const size_t before = world_->openCount();
    const bool keepsAllOut = world_->locksAreAccess() && lockCase.elsewhere == DeviceLock::exclusive;
    const bool granted = lockCase.granted && !keepsAllOut;
    std::vector<std::string> names = {world_->disk()};
    if (!world_->locksAreAccess()) names.push_back(world_->slice(3));
    for (const std::string& name : names) {
      SCOPED_TRACE(name + ": " + std::to_string(static_cast<int>(lockCase.elsewhere)) + " elsewhere, " +
                   std::to_string(static_cast<int>(lockCase.wanted)) + " wanted");
      const HangGuard guard;
      const PromptnessCheck prompt;
      errno = 0;
      auto device = open(name, DeviceAccess::readWrite, lockCase.wanted);
      const int reason = errno;
      EXPECT_EQ(device != nullptr, granted);
      if (!granted) {
        EXPECT_TRUE(reason == EWOULDBLOCK || reason == EBUSY) << std::strerror(reason);
      }
      device.reset();
      EXPECT_EQ(world_->openCount(), before);
    }
    world_->unlockElsewhere();
  }
}

TEST_P(DeviceFileContract, ALockReleasedByAnotherProcessIsAvailable) {
  world_->lockElsewhere(DeviceLock::exclusive);
  EXPECT_FALSE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
  world_->unlockElsewhere();
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
}

TEST_P(DeviceFileContract, AProcessSharesItsExclusiveLockWithItself) {
  const HangGuard guard;
  const PromptnessCheck prompt;
  const auto disk = open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_TRUE(open(world_->disk(), DeviceAccess::readOnly, DeviceLock::shared));
  if (!world_->slicesStayBesideWriter()) {
    expectRefused(world_->slice(1), ENOENT);
    return;
  }
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

TEST_P(DeviceFileContract, AProcessesOwnSharedLockIsNotConvertedToAnExclusiveOne) {
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

}  // namespace
}  // namespace vorlix::contract
