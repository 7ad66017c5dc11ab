// SPDX-License-Identifier: Apache-2.0
//
// A write-protected block device: a read-only loop device. Needs the right to set one up.
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "CapturedTree.h"
#include "Commands.h"

namespace vorlix::test {
namespace {

class WriteProtectedDisk : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only the super-user can set up loop devices";
    const std::string image = folder_.path() / "disk.img";
    std::ofstream(image) << std::string(1 << 20, 'd');
    try {
      node_ = run("losetup -r -f --show '" + image + "' 2>&1");
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << "no loop device: " << error.what();
    }
  }

  void TearDown() override {
    if (!node_.empty()) run("losetup -d '" + node_ + "'");
  }

  std::unique_ptr<DeviceHandle> open(DeviceAccess access, DeviceLock lock) {
    errno = 0;
    return nativePlatform().deviceFile->open(node_, access, lock);
  }

  TemporaryFolder folder_;
  std::string node_;
};

TEST_F(WriteProtectedDisk, CannotBeOpenedForWriting) {
  for (const DeviceLock lock : {DeviceLock::none, DeviceLock::shared, DeviceLock::exclusive}) {
    EXPECT_FALSE(open(DeviceAccess::readWrite, lock));
    EXPECT_EQ(errno, EROFS);
  }
}

TEST_F(WriteProtectedDisk, CanBeReadAndLockedForReading) {
  for (const DeviceLock lock : {DeviceLock::none, DeviceLock::shared}) {
    const auto disk = open(DeviceAccess::readOnly, lock);
    ASSERT_TRUE(disk) << errno;
    char byte = 0;
    EXPECT_EQ(disk->readAt(&byte, 1, 4096), 1);
    EXPECT_EQ(byte, 'd');
  }
}

}  // namespace
}  // namespace vorlix::test
