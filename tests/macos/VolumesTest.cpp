// SPDX-License-Identifier: Apache-2.0
//
// Mounted volumes as macOS lists them.
#include <Vorlix/platform/MountedVolumes.h>
#include <gmock/gmock.h>

#include "tests/contract/DeviceWorlds.h"
#include "tests/macos/standin/System.h"

namespace vorlix::contract {
namespace {

class Volumes : public testing::Test {
 protected:
  Volumes() { standin::show(machine_); }
  ~Volumes() override { standin::showUsual(); }

  static std::vector<MountedVolume> volumes() { return nativePlatform().mountedVolumes->volumes(); }

  SimulatedMachine machine_;
};

TEST_F(Volumes, AreListedInTheirOrderWithTheirSizes) {
  machine_.addMountedVolume({"System", "/", "/dev/disk0s2", 512000, 256000});
  machine_.addMountedVolume({"STICK", "/Volumes/STICK", "msdos://disk4s1/STICK", 1024, 512});
  const auto list = volumes();
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].name, "System");
  EXPECT_EQ(list[0].mountPath, "/");
  EXPECT_EQ(list[0].totalSize, 512000U);
  EXPECT_EQ(list[0].freeSpace, 256000U);
  EXPECT_EQ(list[1].mountedFrom, "msdos://disk4s1/STICK");
}

TEST_F(Volumes, WhatIsFreeOfALocalVolumeIsAskedAnew) {
  machine_.addMountedVolume({"System", "/", "/dev/disk0s2", 512000, 256000});
  standin::system().staleFree["/"] = 512;
  EXPECT_EQ(volumes().at(0).freeSpace, 256000U);
}

TEST_F(Volumes, AServerIsAskedForNothing) {
  machine_.addMountedVolume({"share", "/Volumes/a share", "//me@server/share", 512000, 256000});
  standin::system().staleFree["/Volumes/a share"] = 512;
  const auto list = volumes();
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].freeSpace, 512U);
  EXPECT_EQ(list[0].name, "a share") << "its folder's";
}

TEST_F(Volumes, ADeviceThatIsMountedTwiceIsListedOnce) {
  machine_.addMountedVolume({"A", "/Volumes/A", "/dev/disk0s2", 512, 512});
  machine_.addMountedVolume({"B", "/Volumes/B", "/dev/disk0s2", 512, 512});
  machine_.addMountedVolume({"devfs", "/dev", "devfs", 0, 0});
  machine_.addMountedVolume({"devfs", "/chroot/dev", "devfs", 0, 0});
  std::vector<std::string> paths;
  for (const auto& volume : volumes()) paths.push_back(*volume.mountPath);
  EXPECT_THAT(paths, testing::ElementsAre("/Volumes/A", "/dev", "/chroot/dev"));
}

TEST_F(Volumes, MoreThanFitAtFirstAreAllListed) {
  for (int i = 0; i < 40; ++i) {
    machine_.addMountedVolume({"v", "/Volumes/" + std::to_string(i), "/dev/disk0s" + std::to_string(i), 512, 512});
  }
  EXPECT_EQ(volumes().size(), 40U);
}

TEST_F(Volumes, ANameThatIsEmptyIsTheFoldersAndSizesThatAreNoneAreAbsent) {
  machine_.addMountedVolume({"", "/Volumes/NO NAME", "/dev/disk4s1", std::nullopt, std::nullopt});
  const auto list = volumes();
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].name, "NO NAME");
  EXPECT_FALSE(list[0].totalSize);
}

}  // namespace
}  // namespace vorlix::contract
