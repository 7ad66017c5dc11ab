// SPDX-License-Identifier: Apache-2.0
//
// The contract of <Vorlix/platform/DeviceStreams.h>, on every machine that is possible here.
#include <Vorlix/platform/DeviceStreams.h>

#include <limits>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using OwnedStream = std::unique_ptr<FILE, CloseStream>;

FILE* streamOver(std::unique_ptr<DeviceHandle> device) {
  return platform().deviceStreams->streamOver(std::move(device));
}

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

TEST_P(DeviceStreamContract, ReadsAWholeSliceAndThenEndOfFile) {
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

TEST_P(DeviceStreamContract, SeeksFromStartCurrentPositionAndEnd) {
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

TEST_P(DeviceStreamContract, PositionsBeyondTheEndReadAsEndOfFile) {
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

TEST_P(DeviceStreamContract, IsReadOnly) {
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

TEST(SimulatedDeviceStream, AFailedReadIsAnErrorOfTheStreamAndNotEndOfFile) {
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

}  // namespace
}  // namespace vorlix::contract
