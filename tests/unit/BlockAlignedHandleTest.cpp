// SPDX-License-Identifier: Apache-2.0
#include "platform/macos/BlockAlignedHandle.h"

#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <limits>
#include <utility>

namespace vorlix {
namespace {

using testing::ElementsAre;

constexpr uint32_t kBlockSize = 512;
constexpr uint64_t kBlockCount = 8;
constexpr uint64_t kSize = kBlockSize * kBlockCount;

// Refuses transfers that are not in whole blocks, as a raw disk node does.
class RawNode final : public DeviceHandle {
 public:
  RawNode(std::unique_ptr<DeviceHandle> device, uint32_t blockSize)
      : device_(std::move(device)), blockSize_(blockSize) {}

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    return takes(count, offset) ? device_->readAt(buffer, count, offset) : -1;
  }
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    return takes(count, offset) ? device_->writeAt(buffer, count, offset) : -1;
  }
  int sync() override { return device_->sync(); }
  std::optional<uint64_t> size() override { return device_->size(); }
  int close() override { return device_->close(); }

 private:
  bool takes(size_t count, uint64_t offset) const {
    if (count != 0 && count % blockSize_ == 0 && offset % blockSize_ == 0) return true;
    errno = EINVAL;
    return false;
  }

  std::unique_ptr<DeviceHandle> device_;
  uint32_t blockSize_;
};

// Byte i of the disk. It differs from its neighbours and from the byte at the same place of the next block.
uint8_t byteAt(uint64_t offset) {
  return static_cast<uint8_t>(offset * 7 + offset / kBlockSize);
}

std::vector<uint8_t> pattern(uint64_t offset, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = byteAt(offset + i);
  return bytes;
}

class BlockAlignedHandleTest : public testing::Test {
 protected:
  BlockAlignedHandleTest() {
    machine_.addDisk("disk0", kSize, kBlockSize);
    machine_.setBytes("disk0", 0, pattern(0, kSize));
    auto opened = machine_.platform().deviceFile->open("disk0", DeviceAccess::readWrite, DeviceLock::none);
    device_ =
        std::make_unique<BlockAlignedHandle>(std::make_unique<RawNode>(std::move(opened), kBlockSize), kBlockSize);
    machine_.clearJournal();
  }

  std::vector<uint8_t> read(size_t count, uint64_t offset) {
    std::vector<uint8_t> bytes(count, 0xCC);
    const ssize_t done = device_->readAt(bytes.data(), count, offset);
    EXPECT_GE(done, 0);
    bytes.resize(done < 0 ? 0 : static_cast<size_t>(done));
    return bytes;
  }

  // Returns what the disk must hold if only [offset, offset + count) was set to 0xEE.
  static std::vector<uint8_t> patternWithHole(uint64_t offset, size_t count) {
    std::vector<uint8_t> bytes = pattern(0, kSize);
    for (size_t i = 0; i < count; ++i) bytes[offset + i] = 0xEE;
    return bytes;
  }

  SimulatedMachine machine_;
  std::unique_ptr<DeviceHandle> device_;
};

TEST_F(BlockAlignedHandleTest, ReadsAnyRunOfBytes) {
  for (const uint64_t offset : {0U, 1U, 28U, 511U, 512U, 513U, 1024U, 3000U}) {
    for (const size_t count : {1U, 4U, 511U, 512U, 513U, 1024U, 1025U}) {
      if (offset + count > kSize) continue;
      EXPECT_EQ(read(count, offset), pattern(offset, count)) << count << " at " << offset;
    }
  }
}

TEST_F(BlockAlignedHandleTest, WritesAnyRunOfBytesAndNoOther) {
  for (const uint64_t offset : {0U, 1U, 28U, 511U, 512U, 513U, 1024U, 3000U}) {
    for (const size_t count : {1U, 4U, 511U, 512U, 513U, 1024U, 1025U}) {
      if (offset + count > kSize) continue;
      machine_.setBytes("disk0", 0, pattern(0, kSize));
      const std::vector<uint8_t> bytes(count, 0xEE);
      EXPECT_EQ(device_->writeAt(bytes.data(), count, offset), static_cast<ssize_t>(count));
      EXPECT_EQ(machine_.bytes("disk0", 0, kSize), patternWithHole(offset, count)) << count << " at " << offset;
    }
  }
}

TEST_F(BlockAlignedHandleTest, PassesWholeBlocksThroughInOneTransfer) {
  std::vector<uint8_t> bytes(2 * kBlockSize);
  EXPECT_EQ(device_->readAt(bytes.data(), bytes.size(), kBlockSize), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), kBlockSize), static_cast<ssize_t>(bytes.size()));
  EXPECT_THAT(machine_.journal(), ElementsAre("read disk0 512+1024", "write disk0 512+1024"));
}

TEST_F(BlockAlignedHandleTest, WritesPartOfABlockAsThatWholeBlock) {
  const uint8_t field[4] = {0x28, 0x40, 0x06, 0x00};
  EXPECT_EQ(device_->writeAt(field, sizeof field, kBlockSize + 28), 4);
  EXPECT_THAT(machine_.journal(), ElementsAre("read disk0 512+512", "write disk0 512+512"));
}

TEST_F(BlockAlignedHandleTest, TransfersTheEndsOfARunSeparatelyFromItsWholeBlocks) {
  const std::vector<uint8_t> bytes(1 + 2 * kBlockSize + 1, 0xEE);
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), kBlockSize - 1), static_cast<ssize_t>(bytes.size()));
  EXPECT_THAT(machine_.journal(), ElementsAre("read disk0 0+512", "write disk0 0+512", "write disk0 512+1024",
                                              "read disk0 1536+512", "write disk0 1536+512"));
}

TEST_F(BlockAlignedHandleTest, ReadsFewerBytesAtTheEndOfTheDevice) {
  EXPECT_EQ(read(100, kSize - 10), pattern(kSize - 10, 10));
  EXPECT_EQ(read(3 * kBlockSize, kSize - kBlockSize), pattern(kSize - kBlockSize, kBlockSize));
  EXPECT_TRUE(read(10, kSize).empty());
  EXPECT_TRUE(read(10, kSize + 1).empty());
  EXPECT_TRUE(read(10, std::numeric_limits<uint64_t>::max() - 3).empty());
}

TEST_F(BlockAlignedHandleTest, WritesFewerBytesAtTheEndOfTheDevice) {
  const std::vector<uint8_t> bytes(100, 0xEE);
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), kSize - 10), 10);
  EXPECT_EQ(machine_.bytes("disk0", 0, kSize), patternWithHole(kSize - 10, 10));
}

TEST_F(BlockAlignedHandleTest, RefusesToWriteBeyondTheEnd) {
  const std::vector<uint8_t> bytes(kBlockSize, 0xEE);
  for (const uint64_t offset : {kSize, kSize + 28, std::numeric_limits<uint64_t>::max() - 3}) {
    errno = 0;
    EXPECT_EQ(device_->writeAt(bytes.data(), 4, offset), -1) << offset;
    EXPECT_EQ(errno, ENOSPC) << offset;
  }
  errno = 0;
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), kSize), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(machine_.bytes("disk0", 0, kSize), pattern(0, kSize));
}

TEST_F(BlockAlignedHandleTest, WritesNothingOfABlockThatCannotBeRead) {
  machine_.fail("disk0", Operation::read, EIO);
  const uint8_t field[4] = {1, 2, 3, 4};
  errno = 0;
  EXPECT_EQ(device_->writeAt(field, sizeof field, 28), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(machine_.writes().empty());
}

TEST_F(BlockAlignedHandleTest, CountsTheBytesTransferredBeforeAFailure) {
  machine_.fail("disk0", Operation::write, EIO, 1);
  const std::vector<uint8_t> bytes(10 + kBlockSize, 0xEE);
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), kBlockSize - 10), 10);
  EXPECT_EQ(machine_.bytes("disk0", 0, kSize), patternWithHole(kBlockSize - 10, 10));
}

TEST_F(BlockAlignedHandleTest, CountsOnlyTheCallersBytesOfAPartlyWrittenBlock) {
  machine_.shortenWrites("disk0", 30);
  const std::vector<uint8_t> bytes(8, 0xEE);
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), 28), 2);
  EXPECT_EQ(device_->writeAt(bytes.data(), bytes.size(), 100), 0);
}

TEST_F(BlockAlignedHandleTest, TransfersNothingForACountOfZero) {
  uint8_t byte = 0xCC;
  EXPECT_EQ(device_->readAt(&byte, 0, 5), 0);
  EXPECT_EQ(device_->writeAt(&byte, 0, 5), 0);
  EXPECT_TRUE(machine_.journal().empty());
}

TEST_F(BlockAlignedHandleTest, ForwardsSizeSyncAndCloseToTheDevice) {
  EXPECT_EQ(device_->size(), kSize);
  EXPECT_EQ(device_->sync(), 0);
  EXPECT_EQ(device_->close(), 0);
  EXPECT_EQ(machine_.openCount(), 0U);
  EXPECT_THAT(machine_.journal(), ElementsAre("sync disk0", "close disk0"));
  errno = 0;
  EXPECT_EQ(device_->close(), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(BlockAlignedHandleTest, DestructorClosesTheDevice) {
  device_.reset();
  EXPECT_EQ(machine_.openCount(), 0U);
}

}  // namespace
}  // namespace vorlix
