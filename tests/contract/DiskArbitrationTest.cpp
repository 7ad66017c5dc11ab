// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/DiskArbitration.h, on every machine that is possible here.
#include <Vorlix/platform/RunLoop.h>

#include <chrono>
#include <cstdlib>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

std::optional<int64_t> blockSizeBy(const Platform& ports, const std::string& name) {
  const auto session = ports.diskArbitration->createSession();
  if (!session) return std::nullopt;
  const auto disk = session->diskFromBSDName(name);
  if (!disk) return std::nullopt;
  const auto description = disk->copyDescription();
  return description ? description->integer(kDescriptionMediaBlockSize) : std::nullopt;
}

/// Returns whether a disk has that name. An unknown name gives no object, or one without a description.
bool isKnown(const Platform& ports, const std::string& name) {
  const auto session = ports.diskArbitration->createSession();
  const auto disk = session->diskFromBSDName(name);
  return disk && disk->copyDescription().has_value();
}

class DiskArbitrationContract : public OnEveryWorld {};

TEST_P(DiskArbitrationContract, DescribesTheBlockSizeOfAWholeDisk) {
  EXPECT_EQ(blockSizeBy(world_->ports(), world_->disk()), int64_t{world_->blockSize()});
}

TEST_P(DiskArbitrationContract, DescribesTheBlockSizeOfASlice) {
  EXPECT_EQ(blockSizeBy(world_->ports(), world_->slice(1)), int64_t{world_->blockSize()});
  EXPECT_EQ(blockSizeBy(world_->ports(), world_->slice(3)), int64_t{world_->blockSize()});
}

TEST_P(DiskArbitrationContract, AcceptsADeviceNameWithAndWithoutItsFolder) {
  const std::string name = world_->disk();
  if (name.rfind("/dev/", 0) != 0) GTEST_SKIP() << "a disk-image file has no device name";
  EXPECT_EQ(blockSizeBy(world_->ports(), name.substr(5)), int64_t{world_->blockSize()});
  EXPECT_EQ(blockSizeBy(world_->ports(), name.substr(5) + "s3"), int64_t{world_->blockSize()});
}

TEST_P(DiskArbitrationContract, DoesNotKnowAMissingDisk) {
  EXPECT_FALSE(isKnown(world_->ports(), world_->disk() + "-missing"));
  EXPECT_FALSE(isKnown(world_->ports(), "no-such-disk"));
  EXPECT_FALSE(isKnown(world_->ports(), ""));
}

TEST_P(DiskArbitrationContract, HoldingADiskKeepsNothingOpen) {
  const size_t before = world_->openCount();
  const auto session = world_->ports().diskArbitration->createSession();
  const auto disk = session->diskFromBSDName(world_->disk());
  const auto slice = session->diskFromBSDName(world_->slice(3));
  ASSERT_TRUE(disk);
  ASSERT_TRUE(slice);
  EXPECT_TRUE(disk->copyDescription().has_value());
  EXPECT_TRUE(slice->copyDescription().has_value());
  EXPECT_EQ(world_->openCount(), before);
}

TEST_P(DiskArbitrationContract, DescribingDoesNotChangeTheDisk) {
  const Buffer before = world_->allBytes();
  EXPECT_TRUE(blockSizeBy(world_->ports(), world_->disk()).has_value());
  EXPECT_EQ(world_->allBytes(), before);
}

TEST_P(DiskArbitrationContract, ASessionServesManyDisks) {
  const auto session = world_->ports().diskArbitration->createSession();
  for (int i = 0; i < 50; ++i) {
    const auto disk = session->diskFromBSDName(i % 2 == 0 ? world_->disk() : world_->slice(1));
    ASSERT_TRUE(disk);
    const auto description = disk->copyDescription();
    ASSERT_TRUE(description.has_value());
    ASSERT_EQ(description->integer(kDescriptionMediaBlockSize), int64_t{world_->blockSize()});
  }
}

TEST_P(DiskArbitrationContract, AcceptsTheDevicesFolderBeforeAPathAnyNumberOfTimes) {
  const auto session = world_->ports().diskArbitration->createSession();
  for (const std::string& name : {world_->disk(), world_->slice(1), world_->slice(3)}) {
    const auto bsdName = session->diskFromBSDName(name)->bsdName();
    std::string longer = name;
    for (int times = 1; times <= 4; ++times) {
      longer = "/dev/" + longer;
      const auto disk = session->diskFromBSDName(longer);
      ASSERT_TRUE(disk) << longer;
      EXPECT_EQ(disk->bsdName(), bsdName) << longer;
      EXPECT_EQ(blockSizeBy(world_->ports(), longer), int64_t{world_->blockSize()}) << longer;
    }
  }
  EXPECT_FALSE(isKnown(world_->ports(), "/dev//dev/no-such-disk"));
  EXPECT_FALSE(isKnown(world_->ports(), "/dev//dev/"));
}

TEST_P(DiskArbitrationContract, PartsOfADescriptionAreThoseOfAllOfIt) {
  const auto session = world_->ports().diskArbitration->createSession();
  for (const std::string& name : {world_->disk(), world_->slice(1), world_->slice(3)}) {
    const auto disk = session->diskFromBSDName(name);
    ASSERT_TRUE(disk) << name;
    const auto all = disk->copyDescription();
    const auto ofVolume = disk->copyVolumeDescription();
    ASSERT_TRUE(all && ofVolume) << name;
    for (const auto& [key, value] : all->values()) {
      const bool isOfVolume = key.starts_with("DAVolume");
      EXPECT_TRUE(!isOfVolume || ofVolume->value(key) == value) << name << " " << key;
    }
    for (const auto& entry : ofVolume->values()) EXPECT_TRUE(all->contains(entry.first)) << name << " " << entry.first;
    EXPECT_EQ(disk->isInternal(), all->boolean(kDescriptionDeviceInternal)) << name;
  }
}

TEST_P(DiskArbitrationContract, ADiskMayOutliveItsSession) {
  auto session = world_->ports().diskArbitration->createSession();
  const auto slice = session->diskFromBSDName(world_->slice(3));
  const auto whole = session->diskFromBSDName(world_->disk());
  const auto sliceName = slice->bsdName();
  const auto wholeName = whole->bsdName();
  session.reset();
  EXPECT_EQ(slice->bsdName(), sliceName);
  const auto description = slice->copyDescription();
  ASSERT_TRUE(description.has_value());
  EXPECT_EQ(description->integer(kDescriptionMediaBlockSize), int64_t{world_->blockSize()});
  const auto above = slice->wholeDisk();
  ASSERT_TRUE(above);
  EXPECT_EQ(above->bsdName(), wholeName);
}

TEST_P(DiskArbitrationContract, ARequestToADiskThatOutlivedItsSessionHasNoCompletion) {
  auto session = world_->ports().diskArbitration->createSession();
  const auto loop = world_->ports().runLoops->current();
  session->schedule(*loop, kDefaultRunLoopMode);
  const auto slice = session->diskFromBSDName(world_->slice(3));
  session.reset();
  bool completed = false;
  slice->mount({}, [&](const std::optional<Dissenter>&) { completed = true; });
  slice->unmount([&](const std::optional<Dissenter>&) { completed = true; });
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, std::chrono::milliseconds(100)), RunLoopResult::noSources);
  EXPECT_FALSE(completed);
}

INSTANTIATE_TEST_SUITE_P(Worlds, DiskArbitrationContract, testing::ValuesIn(allWorlds()), worldName);

// ------------------------------------------------------------------------------------------------- only on some worlds

TEST(SimulatedDiskArbitration, CanHideTheBlockSize) {
  SimulatedMachine machine;
  machine.addDisk("disk0", 1 << 20, 512);
  machine.hideBlockSize("disk0");
  const auto disk = machine.platform().diskArbitration->createSession()->diskFromBSDName("disk0");
  ASSERT_TRUE(disk);
  const auto description = disk->copyDescription();
  ASSERT_TRUE(description.has_value());
  EXPECT_FALSE(description->contains(kDescriptionMediaBlockSize));
}

TEST(SimulatedDiskArbitration, CanRefuseASession) {
  SimulatedMachine machine;
  machine.addDisk("disk0", 1 << 20, 512);
  machine.refuseSessions();
  EXPECT_FALSE(machine.platform().diskArbitration->createSession());
}

class NativeDiskArbitration : public testing::Test {
 protected:
  TemporaryFolder folder_;
  Platform ports_ = nativePlatform();
};

TEST_F(NativeDiskArbitration, AnImageWithoutAGPTHasBlocksOf512Bytes) {
  const std::string path = folder_ / "blank.img";
  writeImage(path, {}, 1 << 20);
  EXPECT_EQ(blockSizeBy(ports_, path), 512);
}

TEST_F(NativeDiskArbitration, AnEmptyOrShortImageHasBlocksOf512Bytes) {
  for (const uint64_t size : {0U, 100U, 512U, 520U, 4096U}) {
    const std::string path = folder_ / ("short" + std::to_string(size));
    writeImage(path, {}, size);
    EXPECT_EQ(blockSizeBy(ports_, path), 512) << size;
  }
}

TEST_F(NativeDiskArbitration, TheHeadersLocationDeterminesTheBlockSizeOfAnImage) {
  for (const uint32_t size : {512U, 4096U}) {
    const std::string path = folder_ / ("header" + std::to_string(size));
    writeImage(path, gptOf(size, kDiskBlocks, {}), kDiskBlocks * size);
    EXPECT_EQ(blockSizeBy(ports_, path), int64_t{size});
  }
}

TEST_F(NativeDiskArbitration, OnlyFilesAndBlockDevicesAreDisks) {
  EXPECT_FALSE(isKnown(ports_, folder_.path().string()));
  EXPECT_FALSE(isKnown(ports_, "/dev/null"));
}

TEST_F(NativeDiskArbitration, TheDescriptionIsCurrent) {
  const std::string path = folder_ / "disk.img";
  writeUsualImage(path, 4096);
  const auto session = ports_.diskArbitration->createSession();
  const auto disk = session->diskFromBSDName(path);
  ASSERT_TRUE(disk);
  EXPECT_EQ(disk->copyDescription()->integer(kDescriptionMediaBlockSize), 4096);
  writeUsualImage(path, 512);
  EXPECT_EQ(disk->copyDescription()->integer(kDescriptionMediaBlockSize), 512);
  std::filesystem::remove(path);
  EXPECT_FALSE(disk->copyDescription().has_value());
}

}  // namespace
}  // namespace vorlix::contract
