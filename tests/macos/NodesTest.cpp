// SPDX-License-Identifier: Apache-2.0
//
// The stand-in of the kernel's disk nodes, and the adapter over them.
#include <Vorlix/platform/Descriptor.h>
#include <sys/disk.h>
#include <sys/ioctl.h>

#include "platform/macos/LockedDescriptor.h"
#include "platform/posix/FileHandle.h"
#include "tests/contract/DeviceCalls.h"
#include "tests/macos/standin/System.h"

namespace vorlix::contract {
namespace {

class Nodes : public testing::Test {
 protected:
  Nodes() {
    machine_.addDisk("disk0", 2048 * 512, 512);
    machine_.addSlice("disk0", 1, 40, 64);
    standin::show(machine_);
  }
  ~Nodes() override { standin::showUsual(); }

  static std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access = DeviceAccess::readOnly,
                                            DeviceLock lock = DeviceLock::none) {
    errno = 0;
    return nativePlatform().deviceFile->open(path, access, lock);
  }

  SimulatedMachine machine_;
};

// ------------------------------------------------------------------------------------ the stand-in is as the kernel is

TEST_F(Nodes, TheDriverIsAskedToWaitAndKnowsNoSuchRequest) {
  const Descriptor node(::open("/dev/disk0", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(node);
  EXPECT_EQ(fcntl(node.get(), F_SETFL, 0), -1);
  EXPECT_EQ(errno, ENOTTY);
}

TEST_F(Nodes, FlushingAFileIsNoRequestToANode) {
  const Descriptor node(::open("/dev/disk0", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(fcntl(node.get(), F_FULLFSYNC), -1);
  EXPECT_EQ(errno, ENOTTY);
}

TEST_F(Nodes, ARawNodeTakesWholeBlocksOnly) {
  const Descriptor node(::open("/dev/rdisk0", O_RDWR | O_CLOEXEC));
  Buffer bytes(1024);
  EXPECT_EQ(pread(node.get(), bytes.data(), 512, 512), 512);
  EXPECT_EQ(pread(node.get(), bytes.data(), 100, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(pwrite(node.get(), bytes.data(), 512, 4), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Nodes, AnExclusiveLockIsForOneWhoIsAlone) {
  const Descriptor first(::open("/dev/disk0", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(::open("/dev/rdisk0", O_RDONLY | O_EXLOCK | O_NONBLOCK), -1);
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Nodes, AWriterOfTheDiskTakesItsSlicesAway) {
  {
    const Descriptor writer(::open("/dev/disk0", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::open("/dev/disk0s1", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_TRUE(Descriptor(::open("/dev/disk0s1", O_RDONLY)));
}

// ----------------------------------------------------------------------------------------------------- the adapter

TEST_F(Nodes, OpenWithAndWithoutALock) {
  for (const char* name : {"/dev/disk0", "/dev/rdisk0", "disk0s1", "/dev/rdisk0s1"}) {
    for (const DeviceAccess access : {DeviceAccess::readOnly, DeviceAccess::readWrite}) {
      for (const DeviceLock lock : {DeviceLock::none, DeviceLock::shared, DeviceLock::exclusive}) {
        EXPECT_TRUE(open(name, access, lock)) << name << ": " << std::strerror(errno);
      }
    }
  }
  EXPECT_EQ(machine_.openCount(), 0U);
}

TEST_F(Nodes, ALockedFileBlocksAgainOnceItIsOpen) {
  const TemporaryFolder folder;
  writeImage(folder / "image", {}, 512);
  const LockedDescriptor opened = openWithLock(folder / "image", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_GE(opened.descriptor, 0);
  EXPECT_EQ(fcntl(opened.descriptor, F_GETFL) & O_NONBLOCK, 0);
  close(opened.descriptor);
}

TEST_F(Nodes, AMountedSliceIsLockedForNobodyAndKeepsWritersFromItsDisk) {
  machine_.setVolume("disk0s1", {"msdos", "EFI", std::nullopt, "/Volumes/EFI", true});
  EXPECT_FALSE(open("disk0s1", DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, EBUSY);
  EXPECT_FALSE(open("disk0", DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(open("disk0", DeviceAccess::readWrite, DeviceLock::shared));
  EXPECT_TRUE(open("disk0s1"));
}

TEST_F(Nodes, BesideOnesOwnExclusiveLockAReaderSharesTheOpenFile) {
  const auto locked = open("disk0s1", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(locked);
  EXPECT_TRUE(open("disk0s1"));
  EXPECT_TRUE(open("disk0s1", DeviceAccess::readWrite));
  EXPECT_TRUE(open("disk0s1", DeviceAccess::readOnly, DeviceLock::shared));
}

TEST_F(Nodes, BesideOnesOwnReadersLockThereIsNoWriter) {
  const auto locked = open("disk0s1", DeviceAccess::readOnly, DeviceLock::exclusive);
  ASSERT_TRUE(locked);
  EXPECT_FALSE(open("disk0s1", DeviceAccess::readWrite));
  EXPECT_EQ(errno, EBUSY);
}

// A command that changes the MBR and a volume's boot sector opens the disk first, then the slice, and writes to both.
TEST_F(Nodes, BesideItsOwnWriterOfTheDiskAProcessReachesTheSlices) {
  machine_.setBytes("disk0", 0, gptOf(512, 2048, {{1, 40, 103}, {3, 200, 263}}));
  machine_.setBytes("disk0", 40 * 512, Buffer(512, 0x11));
  for (const DeviceLock lock : {DeviceLock::exclusive, DeviceLock::none}) {
    const auto disk = open("disk0", DeviceAccess::readWrite, DeviceLock::exclusive);
    ASSERT_TRUE(disk);
    EXPECT_EQ(::open("/dev/disk0s1", O_RDWR), -1) << "the node is gone";
    const auto slice = open("disk0s1", DeviceAccess::readWrite, lock);
    ASSERT_TRUE(slice) << std::strerror(errno);
    EXPECT_EQ(slice->size(), uint64_t{64 * 512});
    EXPECT_EQ(slice->identity()->disk, disk->identity()->disk);
    EXPECT_EQ(slice->identity()->offset, uint64_t{40 * 512});
    const Buffer bytes = {1, 2, 3, 4};
    EXPECT_EQ(slice->writeAt(bytes.data(), bytes.size(), 28), 4);
    EXPECT_EQ(slice->writeAt(bytes.data(), bytes.size(), 64 * 512), -1) << "past the slice's end";
    EXPECT_EQ(slice->sync(), 0);
    EXPECT_EQ(machine_.bytes("disk0", 40 * 512 + 28, 4), bytes);
    EXPECT_EQ(machine_.bytes("disk0", 104 * 512, 4), Buffer(4));
  }
  EXPECT_EQ(machine_.openCount(), 0U);
}

TEST_F(Nodes, BesideItsOwnReaderWithAnExclusiveLockSlicesAreReadOnly) {
  machine_.setBytes("disk0", 0, gptOf(512, 2048, {{1, 40, 103}}));
  const auto disk = open("disk0", DeviceAccess::readOnly, DeviceLock::exclusive);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open("disk0s1", DeviceAccess::readOnly, DeviceLock::shared));
  EXPECT_FALSE(open("disk0s1", DeviceAccess::readWrite));
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Nodes, BesideASharedLockOfTheDiskASliceIsOpenedAtItsNode) {
  const auto disk = open("disk0", DeviceAccess::readWrite, DeviceLock::shared);
  ASSERT_TRUE(disk);
  EXPECT_TRUE(open("disk0s1", DeviceAccess::readWrite, DeviceLock::exclusive)) << "this disk has no GPT to go by";
}

TEST_F(Nodes, BesideItsSliceADiskIsWrittenToWithASharedLockOnly) {
  const auto slice = open("disk0s1", DeviceAccess::readWrite, DeviceLock::exclusive);
  ASSERT_TRUE(slice);
  EXPECT_FALSE(open("disk0", DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, EBUSY);
  EXPECT_TRUE(open("disk0", DeviceAccess::readWrite, DeviceLock::shared));
}

TEST_F(Nodes, ASliceThatTheDiskDoesNotHaveIsNotThere) {
  machine_.setBytes("disk0", 0, gptOf(512, 2048, {{1, 40, 103}}));
  const auto disk = open("disk0", DeviceAccess::readWrite, DeviceLock::exclusive);
  for (const char* name : {"disk0s2", "disk0s129", "disk1s1", "/dev/rdisk0s1"}) {
    EXPECT_FALSE(open(name)) << name;
    EXPECT_EQ(errno, ENOENT) << name;
  }
}

TEST_F(Nodes, WhatTheSystemRefusesIsRefusedWithItsReason) {
  machine_.fail("disk0", Operation::open, EACCES);
  EXPECT_FALSE(open("disk0", DeviceAccess::readWrite, DeviceLock::exclusive));
  EXPECT_EQ(errno, EACCES);
}

TEST_F(Nodes, FlushingReachesTheDrive) {
  const auto disk = open("disk0", DeviceAccess::readWrite);
  machine_.clearJournal();
  EXPECT_EQ(disk->sync(), 0);
  EXPECT_EQ(machine_.journal(), std::vector<std::string>{"sync disk0"});
  machine_.fail("disk0", Operation::sync, EIO);
  EXPECT_EQ(disk->sync(), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(Nodes, ADriverThatCannotFlushIsNoFailure) {
  const auto disk = open("disk0", DeviceAccess::readWrite);
  standin::system().cannotFlush = true;
  EXPECT_EQ(disk->sync(), 0);
}

TEST_F(Nodes, TheMediumIsReadPastTheSystemsMemory) {
  const auto disk = open("disk0");
  Buffer bytes(512);
  const unsigned before = standin::system().uncachedDescriptors;
  EXPECT_EQ(disk->readMediumAt(bytes.data(), bytes.size(), 0), 512);
  EXPECT_EQ(standin::system().uncachedDescriptors, before + 1);
}

TEST_F(Nodes, BlockAndRawNodesAreOneDeviceAndASliceIsItsDisks) {
  const auto whole = open("disk0")->identity();
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->disk, "node disk0");
  EXPECT_EQ(open("/dev/rdisk0")->identity()->disk, whole->disk);
  EXPECT_EQ(open("disk0s1")->identity()->disk, whole->disk);
  EXPECT_EQ(whole->offset, uint64_t{0});
}

TEST_F(Nodes, AFileIsKnownByItsNumberAndItsBirth) {
  const TemporaryFolder folder;
  writeImage(folder / "image", {}, 512);
  const auto first = open(folder / "image")->identity();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->disk.rfind("file ", 0), 0U);
  writeImage(folder / "other", {}, 512);
  EXPECT_NE(open(folder / "other")->identity()->disk, first->disk);
  EXPECT_EQ(open(folder / "image")->identity()->disk, first->disk);
}

TEST_F(Nodes, ATransferThatFailsIsAFailureOfAllItsParts) {
  machine_.fail("disk0", Operation::read, EIO);
  const auto raw = open("/dev/rdisk0", DeviceAccess::readWrite);
  Buffer bytes(100);
  EXPECT_EQ(raw->readAt(bytes.data(), 100, 4), -1);
  EXPECT_EQ(raw->writeAt(bytes.data(), 100, 4), -1);
  EXPECT_EQ(errno, EIO);
}

}  // namespace
}  // namespace vorlix::contract
