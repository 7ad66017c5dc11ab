// SPDX-License-Identifier: Apache-2.0
//
// Mounted volumes under all names that lead to their bytes: images, loop devices over images, partitions of loop
// devices, and loop devices over loop devices.
#include <fcntl.h>
#include <sys/ioctl.h>

#include "MountNamespace.h"
#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSliceStart = "1048576";

class MountSources : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason = LoopWorld::unavailable();
    if (reason.empty()) reason = missingTool({"mkfs.ext4", "mount", "umount", "losetup", "sgdisk", "unshare"});
    if (reason.empty()) reason = noMountNamespace();
    if (!reason.empty()) GTEST_SKIP() << reason;
    writeImage(image_, {}, 24 << 20);
    shell("sgdisk --clear --new=1:2048:+16M '" + image_ + "'");
    shell("mkfs.ext4 -q -L slice -E offset=1048576 '" + image_ + "' 16M");
    fs::create_directory(place_);
  }
  void TearDown() override {
    bool ok = false;
    for (auto device = devices_.rbegin(); device != devices_.rend(); ++device) {
      runCommand("partx --delete " + *device + " 2>&1", ok);
      runCommand("losetup --detach " + *device + " 2>&1", ok);
    }
  }

  std::string attach(const std::string& file, const std::string& options = "") {
    devices_.push_back(shell("losetup --show --find " + options + " '" + file + "'"));
    return devices_.back();
  }
  void mountOver(const std::string& device) const { shell("mount -t ext4 " + device + " '" + place_ + "'"); }
  std::string mounted(const std::string& name) const { return mountPath(ports_, name); }

  TemporaryFolder folder_;
  const std::string image_ = folder_ / " odd\nname.img ";
  const std::string place_ = folder_ / "place";
  const Platform ports_ = nativePlatform();
  std::vector<std::string> devices_;
};

TEST_F(MountSources, AMountedPartitionOfALoopDeviceIsTheSliceOfTheImage) {
  const std::string device = attach(image_);
  bool ok = false;
  const std::string text = runCommand("partx --add " + device + " 2>&1", ok);
  if (!fs::exists(device + "p1")) GTEST_SKIP() << "this kernel makes no nodes for slices of a loop device: " << text;
  inOwnNamespace([&] {
    mountOver(device + "p1");
    for (const std::string& name : {image_ + "s1", device + "p1", device + "s1"}) {
      EXPECT_EQ(mounted(name), place_) << name;
    }
    EXPECT_EQ(mounted(image_), "");
    EXPECT_EQ(mounted(device), "");
    ASSERT_TRUE(granted(mountNow(ports_, image_ + "s1", {"rw"})));
    EXPECT_EQ(mounted(image_ + "s1"), place_);
    ASSERT_TRUE(granted(unmountNow(ports_, image_ + "s1")));
    for (const std::string& name : {image_ + "s1", device + "p1"}) EXPECT_EQ(mounted(name), "") << name;
  });
}

TEST_F(MountSources, ALoopDeviceOverASliceIsTheSlice) {
  const std::string device = attach(image_, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    mountOver(device);
    EXPECT_EQ(mounted(image_ + "s1"), place_);
    EXPECT_EQ(mounted(device), place_);
    EXPECT_EQ(mounted(image_), "");
    const std::string other = attach(image_);
    EXPECT_EQ(mounted(other + "s1"), place_) << "this is another loop device over the same image";
    EXPECT_EQ(mounted(other), "");
    shell("losetup --detach " + other);
  });
}

TEST_F(MountSources, ALoopDeviceOverALoopDeviceIsResolved) {
  const std::string whole = attach(image_);
  const std::string slice = attach(whole, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    mountOver(slice);
    for (const std::string& name : {image_ + "s1", whole + "s1", slice}) EXPECT_EQ(mounted(name), place_) << name;
    EXPECT_EQ(mounted(whole), "");
    ASSERT_TRUE(granted(unmountNow(ports_, image_ + "s1")));
    EXPECT_EQ(mounted(slice), "");
  });
}

TEST_F(MountSources, AnImageThatReplacesTheMountedOneIsAnother) {
  const std::string device = attach(image_, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    mountOver(device);
    fs::copy_file(image_, folder_ / "copy.img");
    EXPECT_EQ(mounted(folder_ / "copy.imgs1"), "");
    fs::rename(image_, folder_ / "moved.img");
    EXPECT_EQ(mounted(folder_ / "moved.imgs1"), place_);
    fs::rename(folder_ / "copy.img", image_);
    EXPECT_EQ(mounted(image_ + "s1"), "");
    EXPECT_EQ(mounted(folder_ / "moved.imgs1"), place_);
    fs::remove(folder_ / "moved.img");
    EXPECT_EQ(mounted(image_ + "s1"), "");
    EXPECT_EQ(mounted(device), place_);
  });
}

TEST_F(MountSources, AHardLinkIsTheSameImage) {
  const std::string device = attach(image_, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    mountOver(device);
    fs::create_hard_link(image_, folder_ / "other name.img");
    EXPECT_EQ(mounted(folder_ / "other name.imgs1"), place_);
  });
}

TEST_F(MountSources, ACoveredMountIsNotReportedAsUnmounted) {
  const std::string device = attach(image_, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    mountOver(device);
    shell("mount -t tmpfs above '" + place_ + "'");
    EXPECT_TRUE(refused(unmountNow(ports_, device), kDissentBusy, place_));
    EXPECT_EQ(shell("findmnt --noheadings --output FSTYPE '" + place_ + "' | tail -n 1"), "tmpfs");
    shell("umount '" + place_ + "'");
    EXPECT_TRUE(granted(unmountNow(ports_, device)));
  });
}

TEST_F(MountSources, LongPathsAreUsedInFull) {
  const std::string device = attach(image_, std::string("--offset ") + kSliceStart);
  inOwnNamespace([&] {
    std::string path = place_;
    for (int i = 0; i < 14; ++i) path += "/" + std::string(250, 'd');
    ASSERT_GT(path.size(), 3000U);
    fs::create_directories(path);
    ASSERT_EQ(mount(device.c_str(), path.c_str(), "ext4", 0, nullptr), 0);
    EXPECT_EQ(mounted(image_ + "s1"), path);
    EXPECT_TRUE(granted(unmountNow(ports_, image_ + "s1")));
    EXPECT_EQ(mounted(image_ + "s1"), "");
  });
}

}  // namespace
}  // namespace vorlix::contract
