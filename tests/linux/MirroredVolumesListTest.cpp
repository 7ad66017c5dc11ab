// SPDX-License-Identifier: Apache-2.0
//
// Mirrored FAT volumes in the list of mounted volumes. Their sizes are compared with the counts of fsck.vfat and
// mtools.
#include <Vorlix/platform/MountedVolumes.h>

#include <regex>

#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

class MirroredVolumesInTheList : public testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingTool({"sfdisk", "mkfs.vfat", "fsck.vfat", "mcopy", "minfo"});
    if (!missing.empty()) GTEST_SKIP() << missing;
  }

  /// Returns the volumes whose source is in the test's folder.
  std::vector<MountedVolume> mirrors() const {
    std::vector<MountedVolume> list = ports_.mountedVolumes->volumes();
    std::erase_if(list, [&](const MountedVolume& volume) {
      return volume.mountedFrom.find(folder_.path().string()) == std::string::npos;
    });
    return list;
  }

  struct Sizes {
    uint64_t total = 0;
    uint64_t free = 0;
  };

  /// Returns the sizes of slice 1: the clusters as counted by fsck.vfat, times the cluster size reported by minfo.
  Sizes sizesOn(const std::string& image) const {
    const std::string volume = folder_ / "volume to check";
    std::ifstream from(image, std::ios::binary);
    from.seekg(kVolumeOffset);
    std::ofstream(volume, std::ios::binary) << from.rdbuf();
    std::smatch match;
    const std::string counts = shell("fsck.vfat -n '" + volume + "'");
    if (!std::regex_search(counts, match, std::regex("([0-9]+)/([0-9]+) clusters"))) throw std::runtime_error(counts);
    const uint64_t used = std::stoull(match[1]);
    const uint64_t clusters = std::stoull(match[2]);
    const std::string info = mtools(image, "minfo", "::");
    if (!std::regex_search(info, match, std::regex("cluster size: ([0-9]+) sectors"))) throw std::runtime_error(info);
    const uint64_t clusterSize = std::stoull(match[1]) * 512;
    fs::remove(volume);
    return {clusters * clusterSize, (clusters - used) * clusterSize};
  }

  TemporaryFolder folder_;
  const Platform ports_ = nativePlatform();
};

TEST_F(MirroredVolumesInTheList, HaveTheVolumesLabelFolderAndSizes) {
  // The allocation table of the last volume is longer than one read.
  for (const auto& [bits, megabytes] : {std::pair(12, 4), std::pair(16, 16), std::pair(32, 40), std::pair(32, 160)}) {
    SCOPED_TRACE(testing::Message() << bits << " bits, " << megabytes << " MiB");
    const std::string image = folder_ / ("my disk " + std::to_string(megabytes) + ".img");
    makeFATImage(image, bits, megabytes);
    const Sizes sizes = sizesOn(image);
    asOrdinaryUser(folder_, [&] {
      ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
      const std::vector<MountedVolume> list = mirrors();
      ASSERT_EQ(list.size(), 1U);
      EXPECT_EQ(list[0].name, "MAC EFI");
      EXPECT_EQ(list[0].mountPath, mountPath(ports_, image + "s1"));
      EXPECT_EQ(list[0].mountedFrom, image + "s1");
      EXPECT_EQ(list[0].totalSize, sizes.total);
      EXPECT_EQ(list[0].freeSpace, sizes.free);
      EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
      EXPECT_TRUE(mirrors().empty());
    });
  }
}

TEST_F(MirroredVolumesInTheList, AreFoundByDiskArbitrationBySource) {
  const std::string image = folder_ / "disk.img";
  makeFATImage(image, 16, 16);
  asOrdinaryUser(folder_, [&] {
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    const MountedVolume volume = mirrors().at(0);
    const auto session = ports_.diskArbitration->createSession();
    EXPECT_EQ(session->diskFromBSDName(volume.mountedFrom)->bsdName(), image + "s1");
    EXPECT_EQ(session->diskFromBSDName(volume.mountedFrom)->wholeDisk()->bsdName(), image);
    EXPECT_EQ(session->diskFromVolumePath(URL::fileURLWithPath(*volume.mountPath))->bsdName(), image + "s1");
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
  });
}

TEST_F(MirroredVolumesInTheList, AreInMountOrder) {
  const std::vector<std::string> images = {folder_ / "c.img", folder_ / "a.img", folder_ / "b.img"};
  for (const std::string& image : images) makeFATImage(image, 12, 4);
  asOrdinaryUser(folder_, [&] {
    for (const std::string& image : images) EXPECT_TRUE(granted(mountNow(ports_, image + "s1")));
    const std::vector<MountedVolume> list = mirrors();
    ASSERT_EQ(list.size(), images.size());
    for (size_t i = 0; i < images.size(); ++i) EXPECT_EQ(list[i].mountedFrom, images[i] + "s1");
    for (const std::string& image : images) EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
  });
}

TEST_F(MirroredVolumesInTheList, WithoutALabelAreNamedAfterTheirFolder) {
  const std::string image = folder_ / "plain.img";
  makeFATImage(image, 16, 16);
  shell("mkfs.vfat -F 16 --offset 2048 '" + image + "' 16384");
  asOrdinaryUser(folder_, [&] {
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    EXPECT_EQ(mirrors().at(0).name, "plain.imgs1");
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
  });
}

TEST_F(MirroredVolumesInTheList, ChangesShowOnceTheyAreWrittenBack) {
  const std::string image = folder_ / "disk.img";
  makeFATImage(image, 16, 16);
  asOrdinaryUser(folder_, [&] {
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1", {"rw"})));
    const MountedVolume before = mirrors().at(0);
    writeText(*before.mountPath + "/large", std::string(1 << 20, 'x'));
    EXPECT_EQ(mirrors().at(0).freeSpace, before.freeSpace);
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    EXPECT_EQ(mirrors().at(0).freeSpace, *before.freeSpace - (1 << 20));
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
  });
}

TEST_F(MirroredVolumesInTheList, ANewImageWithTheOldNameIsNotTheVolume) {
  const std::string image = folder_ / "disk.img";
  makeFATImage(image, 16, 16);
  asOrdinaryUser(folder_, [&] {
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    fs::rename(image, folder_ / "renamed.img");
    EXPECT_TRUE(mirrors().empty()) << "the image has another name now";
    fs::copy_file(folder_ / "renamed.img", image);
    EXPECT_TRUE(mirrors().empty()) << "another volume has its name now";
    EXPECT_TRUE(granted(unmountNow(ports_, folder_ / "renamed.imgs1")));
  });
}

TEST_F(MirroredVolumesInTheList, OfALoopDeviceHaveANameThatDiskArbitrationFinds) {
  const std::string reason = LoopWorld::unavailable();
  if (!reason.empty()) GTEST_SKIP() << reason;
  const std::string image = folder_ / "disk.img";
  makeFATImage(image, 16, 16);
  const std::string device = shell("losetup --show --find '" + image + "'");
  const auto refusal = mountNow(ports_, device + "s1");
  const std::vector<MountedVolume> list = ports_.mountedVolumes->volumes();
  const auto found = std::find_if(
      list.begin(), list.end(), [&](const MountedVolume& volume) { return volume.mountedFrom.rfind(device, 0) == 0; });
  const std::string source = found == list.end() ? "" : found->mountedFrom;
  const auto stuck = unmountNow(ports_, device + "s1");
  const auto disk = ports_.diskArbitration->createSession()->diskFromBSDName(source);
  const auto whole = disk ? disk->wholeDisk()->bsdName() : std::nullopt;
  shell("losetup --detach " + device);
  EXPECT_TRUE(granted(refusal));
  EXPECT_TRUE(granted(stuck));
  EXPECT_NE(source, "") << "the volume must be listed";
  EXPECT_EQ(whole, device.substr(5));
}

}  // namespace
}  // namespace vorlix::contract
