// SPDX-License-Identifier: Apache-2.0
//
// The list of mounted volumes with real mounts, each in a private mount namespace, compared with findmnt, lsblk and df.
// MirroredVolumesListTest.cpp tests mirrored volumes.
#include <Vorlix/platform/MountedVolumes.h>
#include <sys/sysmacros.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "FuseDriver.h"
#include "MountNamespace.h"
#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;
using test::FuseDriver;

class LinuxMountedVolumesTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason = LoopWorld::unavailable();
    if (reason.empty()) reason = missingTool({"mkfs.ext4", "mount", "umount", "losetup", "findmnt", "unshare"});
    if (reason.empty()) reason = noMountNamespace();
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  void TearDown() override {
    bool ok = false;
    for (const std::string& device : devices_) runCommand("losetup --detach " + device + " 2>&1", ok);
  }

  /// Creates a loop device with an ext4 file system of that label.
  std::string makeDevice(const std::string& label, const std::string& options = "") {
    const std::string image = folder_ / ("disk " + std::to_string(devices_.size()) + ".img");
    writeImage(image, {}, 16 << 20);
    shell("mkfs.ext4 -q " + options + " -L '" + label + "' '" + image + "'");
    devices_.push_back(shell("losetup --show --find '" + image + "'"));
    return devices_.back();
  }

  std::string makeFolder(const std::string& name) const {
    fs::create_directories(folder_ / name);
    return folder_ / name;
  }
  std::string mountAt(const std::string& device, const std::string& name) const {
    const std::string path = makeFolder(name);
    mountOver(device, path);
    return path;
  }
  static void mountOver(const std::string& device, const std::string& path) {
    if (mount(device.c_str(), path.c_str(), "ext4", MS_NOSUID | MS_NODEV, nullptr) != 0) {
      throw std::runtime_error("cannot mount " + device + " at " + path + ": " + std::strerror(errno));
    }
  }

  std::vector<MountedVolume> volumes() const { return ports_.mountedVolumes->volumes(); }

  /// Returns the volume from that source. @throws std::runtime_error unless it is listed exactly once.
  MountedVolume volumeFrom(const std::string& source) const {
    std::vector<MountedVolume> list = volumes();
    std::erase_if(list, [&](const MountedVolume& volume) { return volume.mountedFrom != source; });
    if (list.size() != 1) throw std::runtime_error(source + " is listed " + std::to_string(list.size()) + " times");
    return list.front();
  }
  /// Returns whether a device is the test's own. Other processes mount and unmount theirs at any time.
  bool isOurs(const std::string& source) const {
    return std::find(devices_.begin(), devices_.end(), source) != devices_.end();
  }
  /// Returns how many volumes are listed whose mount points are in the test's folder.
  std::ptrdiff_t listedInFolder() const {
    const std::vector<MountedVolume> list = volumes();
    return std::count_if(list.begin(), list.end(), [&](const MountedVolume& volume) {
      return volume.mountPath && volume.mountPath->starts_with(folder_ / "");
    });
  }
  bool isListed(const std::string& source) const {
    const std::vector<MountedVolume> list = volumes();
    return std::any_of(list.begin(), list.end(), [&](const auto& volume) { return volume.mountedFrom == source; });
  }

  TemporaryFolder folder_;
  const Platform ports_ = nativePlatform();
  std::vector<std::string> devices_;
};

TEST_F(LinuxMountedVolumesTest, AVolumeHasItsLabelPathSourceAndSizes) {
  const std::string device = makeDevice(
      "Donn\xC3\xA9"
      "es \xE2\x82\xAC 1");
  inOwnNamespace([&] {
    const std::string path = mountAt(device, "place");
    writeText(path + "/file", std::string(1 << 20, 'x'));
    shell("sync -f '" + path + "'");
    const MountedVolume volume = volumeFrom(device);
    EXPECT_EQ(volume.name,
              "Donn\xC3\xA9"
              "es \xE2\x82\xAC 1");
    EXPECT_EQ(volume.mountPath, path);
    const std::string sizes = shell("df --block-size=1 --output=size,avail '" + path + "' | tail -n 1 | xargs");
    EXPECT_EQ(std::to_string(volume.totalSize.value_or(0)) + " " + std::to_string(volume.freeSpace.value_or(0)), sizes);
  });
}

TEST_F(LinuxMountedVolumesTest, TheListMatchesFindmnt) {
  const std::string first = makeDevice("first");
  const std::string second = makeDevice("second");
  const std::string third = makeDevice("third");
  // In a container the root can be a folder of a mounted volume, which is not where that volume is mounted.
  const bool isRootAVolume = shell("findmnt --noheadings --output FSROOT /") == "/";
  const auto isExpected = [&](const std::string& source, const std::string& place) {
    return (place == "/" && isRootAVolume) || isOurs(source);
  };
  inOwnNamespace([&] {
    mountAt(third, "three");
    const std::string one = mountAt(first, "one");
    shell("mount -t tmpfs none '" + makeFolder("in memory") + "'");
    fs::create_directory(one + "/inner");
    shell("mount --bind '" + one + "/inner' '" + makeFolder("inner") + "'");
    mountAt(second, "two");
    mountAt(first, "one again");
    const auto table = nlohmann::json::parse(
        shell("findmnt --kernel --list --json --bytes --nofsroot --output SOURCE,TARGET,FSROOT,MAJ:MIN,SIZE,AVAIL"));
    std::vector<std::string> expected;
    std::set<std::string> seen;
    for (const auto& entry : table["filesystems"]) {
      const auto number = entry["maj:min"].get<std::string>();
      if (number.rfind("0:", 0) == 0 || !seen.insert(number).second) continue;
      if (!isExpected(entry["source"], entry["target"])) continue;
      expected.push_back(entry["source"].get<std::string>() + " at " + entry["target"].get<std::string>());
      if (entry["target"] == "/") continue;  // other programs write to it
      const MountedVolume volume = volumeFrom(entry["source"]);
      EXPECT_EQ(volume.totalSize, entry["size"].get<uint64_t>());
      EXPECT_EQ(volume.freeSpace, entry["avail"].get<uint64_t>());
    }
    std::vector<std::string> listed;
    for (const MountedVolume& volume : volumes()) {
      const std::string place = volume.mountPath.value_or("(none)");
      if (isExpected(volume.mountedFrom, place)) listed.push_back(volume.mountedFrom + " at " + place);
    }
    EXPECT_GE(expected.size(), 3U);
    EXPECT_EQ(listed, expected);
  });
}

TEST_F(LinuxMountedVolumesTest, LabelsMatchLsblk) {
  const std::string missing = missingTool({"lsblk"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string device = makeDevice("Two  words");
  const auto tree = nlohmann::json::parse(shell("lsblk --json --output PATH,LABEL " + device));
  const auto& entry = tree["blockdevices"][0];
  if (entry["label"].is_null()) GTEST_SKIP() << "lsblk knows no labels on this machine";
  inOwnNamespace([&] {
    mountAt(device, "place");
    EXPECT_EQ(volumeFrom(entry["path"]).name, entry["label"].get<std::string>());
  });
}

TEST_F(LinuxMountedVolumesTest, PlacesMatchLsblk) {
  const std::string missing = missingTool({"lsblk"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    mountAt(device, "a place");
    const auto tree = nlohmann::json::parse(shell("lsblk --json --output PATH,MOUNTPOINT " + device));
    const auto& entry = tree["blockdevices"][0];
    EXPECT_EQ(volumeFrom(entry["path"]).mountPath, entry["mountpoint"].get<std::string>());
  });
}

TEST_F(LinuxMountedVolumesTest, LabelBytesThatAreNotUTF8AreReplaced) {
  const std::string device = makeDevice("caf\xE9 \xFF!");
  inOwnNamespace([&] {
    mountAt(device, "place");
    EXPECT_EQ(volumeFrom(device).name, "caf\xEF\xBF\xBD \xEF\xBF\xBD!");
  });
}

TEST_F(LinuxMountedVolumesTest, WithoutALabelAVolumeIsNamedAfterItsFolder) {
  const std::string device = makeDevice("");
  inOwnNamespace([&] {
    const std::string path = mountAt(device, "a \\040\ttab\n line \xC3\xBC \xFF");
    const MountedVolume volume = volumeFrom(device);
    EXPECT_EQ(volume.mountPath, path) << "the path must match byte for byte";
    EXPECT_EQ(volume.name, "a \\040\ttab\n line \xC3\xBC \xEF\xBF\xBD");
    EXPECT_TRUE(volume.totalSize);
  });
}

TEST_F(LinuxMountedVolumesTest, DiskArbitrationFindsTheSameDiskByPathAndBySource) {
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    mountAt(device, "place");
    const MountedVolume volume = volumeFrom(device);
    const auto session = ports_.diskArbitration->createSession();
    const auto byPath = session->diskFromVolumePath(URL::fileURLWithPath(*volume.mountPath));
    const auto bySource = session->diskFromBSDName(volume.mountedFrom);
    ASSERT_TRUE(byPath);
    ASSERT_TRUE(bySource);
    EXPECT_EQ(byPath->bsdName(), device.substr(5));
    EXPECT_EQ(bySource->bsdName(), device.substr(5));
  });
}

TEST_F(LinuxMountedVolumesTest, ADeviceThatIsMountedTwiceIsListedAtItsFirstPlace) {
  const std::string first = makeDevice("first");
  const std::string second = makeDevice("second");
  inOwnNamespace([&] {
    const std::string path = mountAt(first, "one");
    mountAt(second, "two");
    mountAt(first, "three");
    EXPECT_EQ(volumeFrom(first).mountPath, path);
    std::vector<std::string> names;
    for (const MountedVolume& volume : volumes()) {
      if (isOurs(volume.mountedFrom)) names.push_back(volume.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"first", "second"}));
  });
}

TEST_F(LinuxMountedVolumesTest, ABindMountOfAFolderIsNotTheVolumesMountPoint) {
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    const std::string hidden = mountAt(device, "hidden");
    fs::create_directory(hidden + "/folder");
    shell("mount --bind '" + hidden + "/folder' '" + makeFolder("folder") + "'");
    shell("umount '" + hidden + "'");
    const MountedVolume alone = volumeFrom(device);
    EXPECT_FALSE(alone.mountPath);
    EXPECT_FALSE(alone.totalSize);
    EXPECT_EQ(alone.name, "label");
    const std::string path = mountAt(device, "whole");
    const MountedVolume whole = volumeFrom(device);
    EXPECT_EQ(whole.mountPath, path);
    EXPECT_TRUE(whole.totalSize);
  });
}

TEST_F(LinuxMountedVolumesTest, ACoveredMountIsNotTheVolumesMountPoint) {
  const std::string covered = makeDevice("covered");
  const std::string above = makeDevice("above");
  inOwnNamespace([&] {
    const std::string path = mountAt(covered, "folder/place");
    mountOver(above, path);
    EXPECT_EQ(volumeFrom(above).mountPath, path);
    EXPECT_FALSE(volumeFrom(covered).mountPath);
    EXPECT_FALSE(volumeFrom(covered).totalSize) << "these would be the sizes of the volume above it";
    EXPECT_EQ(volumeFrom(covered).name, "covered");
    const std::string other = mountAt(covered, "elsewhere");
    EXPECT_EQ(volumeFrom(covered).mountPath, other);
    shell("mount -t tmpfs none '" + makeFolder("folder") + "'");
    EXPECT_FALSE(volumeFrom(above).mountPath) << "a parent folder is covered";
  });
}

TEST_F(LinuxMountedVolumesTest, MountsWithoutABlockDeviceAreNotListed) {
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    shell("mount -t tmpfs none '" + makeFolder("memory") + "'");
    shell("mount -t tmpfs " + device + " '" + makeFolder("named after a device") + "'");
    shell("mount -t tmpfs ntfs://disk4s1/Data '" + makeFolder("named as by a driver") + "'");
    shell("mount -t proc proc '" + makeFolder("processes") + "'");
    bool ok = false;
    makeFolder("lower");
    makeFolder("merged");
    runCommand(
        "mount -t overlay overlay -o 'lowerdir=" + (folder_ / "lower") + ":/' '" + (folder_ / "merged") + "' 2>&1", ok);
    EXPECT_EQ(listedInFolder(), 0);
    EXPECT_FALSE(isListed(device));
    EXPECT_FALSE(isListed("ntfs://disk4s1/Data"));
  });
}

TEST_F(LinuxMountedVolumesTest, AnUnmountedVolumeIsNotListed) {
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    const std::string path = mountAt(device, "place");
    EXPECT_TRUE(isListed(device));
    shell("umount '" + path + "'");
    EXPECT_FALSE(isListed(device));
  });
}

TEST_F(LinuxMountedVolumesTest, AnOrdinaryUserGetsTheLabelFromUdevsDatabase) {
  const std::string device = makeDevice("on the disk");
  struct stat status = {};
  ASSERT_EQ(stat(device.c_str(), &status), 0);
  if ((status.st_mode & S_IROTH) != 0) GTEST_SKIP() << device << " can be read by everyone";
  const std::string number = std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
  inOwnNamespace([&] {
    shell("mount -t tmpfs none /run && mkdir -p /run/udev/data");
    const std::string path = mountAt(device, "its folder");
    asOrdinaryUser(folder_, [&] {
      EXPECT_EQ(volumeFrom(device).name, "its folder") << "without a record";
      EXPECT_EQ(volumeFrom(device).mountPath, path);
      EXPECT_TRUE(volumeFrom(device).totalSize);
    });
    writeText("/run/udev/data/b" + number,
              "E:ID_FS_TYPE=ext4\nE:ID_FS_USAGE=filesystem\nE:ID_FS_LABEL_ENC=Caf\\xc3\\xa9\\x20Disk\n");
    asOrdinaryUser(folder_, [&] { EXPECT_EQ(volumeFrom(device).name, "Caf\xC3\xA9 Disk"); });
  });
}

TEST_F(LinuxMountedVolumesTest, APlaceThatTheUserCannotReachIsListedWithoutSizes) {
  const std::string device = makeDevice("label");
  const TemporaryFolder closed;  // accessible only to the super-user
  fs::create_directory(closed / "place");
  inOwnNamespace([&] {
    mountOver(device, closed / "place");
    asOrdinaryUser(folder_, [&] {
      EXPECT_EQ(volumeFrom(device).mountPath, closed / "place");
      EXPECT_FALSE(volumeFrom(device).totalSize);
      EXPECT_FALSE(volumeFrom(device).freeSpace);
    });
    const std::string open = mountAt(device, "open");
    asOrdinaryUser(folder_, [&] {
      EXPECT_EQ(volumeFrom(device).mountPath, open);
      EXPECT_TRUE(volumeFrom(device).totalSize);
    });
  });
}

// ------------------------------------------------------------------------------------- images and their loop devices

TEST_F(LinuxMountedVolumesTest, AnImageMountedThroughALoopDeviceIsListedAsTheImage) {
  const std::string image = folder_ / "my disk.img";
  writeImage(image, {}, 16 << 20);
  shell("mkfs.ext4 -q -L whole '" + image + "'");
  inOwnNamespace([&] {
    shell("mount -o loop '" + image + "' '" + makeFolder("place") + "'");
    EXPECT_EQ(volumeFrom(image).name, "whole");
    EXPECT_EQ(volumeFrom(image).mountPath, folder_ / "place");
    const auto disk = ports_.diskArbitration->createSession()->diskFromBSDName(volumeFrom(image).mountedFrom);
    ASSERT_TRUE(disk);
    EXPECT_EQ(disk->bsdName(), image);
  });
}

TEST_F(LinuxMountedVolumesTest, SlicesOfAnImageMountedThroughLoopDevicesAreListedAsSlices) {
  const std::string missing = missingTool({"sgdisk"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string image = folder_ / "my disk.img";
  const std::string one = "one " + std::to_string(getpid());  // tests may run in parallel
  const std::string two = "two " + std::to_string(getpid());
  writeImage(image, {}, 40 << 20);
  shell("sgdisk --clear --new=1:2048:+16M --new=2:+0:+16M '" + image + "'");
  shell("mkfs.ext4 -q -L '" + one + "' -E offset=1048576 '" + image + "' 16M");
  shell("mkfs.ext4 -q -L '" + two + "' -E offset=17825792 '" + image + "' 16M");
  inOwnNamespace([&] {
    ASSERT_TRUE(granted(mountNow(ports_, image + "s2")));
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    for (const auto& [slice, label] : {std::pair(image + "s1", one), std::pair(image + "s2", two)}) {
      const MountedVolume volume = volumeFrom(slice);
      EXPECT_EQ(volume.name, label);
      EXPECT_EQ(volume.mountPath, "/run/vorlix/" + label);
      const auto session = ports_.diskArbitration->createSession();
      EXPECT_EQ(session->diskFromBSDName(volume.mountedFrom)->bsdName(), slice);
      EXPECT_EQ(session->diskFromVolumePath(URL::fileURLWithPath(*volume.mountPath))->bsdName(), slice);
      EXPECT_EQ(describe(ports_, volume.mountedFrom)->text(kDescriptionVolumeName), label);
    }
    std::vector<std::string> names;
    for (const MountedVolume& volume : volumes()) {
      if (volume.mountedFrom.starts_with(image)) names.push_back(volume.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{two, one})) << "the list must be in mount order";
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s2")));
    EXPECT_FALSE(isListed(image + "s1"));
  });
}

TEST_F(LinuxMountedVolumesTest, APartitionOfALoopDeviceIsListedByItsNode) {
  const std::string missing = missingTool({"sgdisk", "partx"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string image = folder_ / "partitioned.img";
  writeImage(image, {}, 24 << 20);
  shell("sgdisk --clear --new=1:2048:+16M '" + image + "'");
  shell("mkfs.ext4 -q -L slice -E offset=1048576 '" + image + "' 16M");
  devices_.push_back(shell("losetup --show --find '" + image + "'"));
  const std::string device = devices_.back();
  bool ok = false;
  const std::string text = runCommand("partx --add " + device + " 2>&1", ok);  // some kernels scan by themselves
  if (!fs::exists(device + "p1")) GTEST_SKIP() << "this kernel makes no nodes for slices of a loop device: " << text;
  inOwnNamespace([&] {
    mountAt(device + "p1", "place");
    EXPECT_EQ(volumeFrom(device + "p1").name, "slice");
    const auto disk = ports_.diskArbitration->createSession()->diskFromBSDName(device + "p1");
    EXPECT_EQ(disk->wholeDisk()->bsdName(), device.substr(5));
  });
  runCommand("partx --delete " + device + " 2>&1", ok);
}

TEST_F(LinuxMountedVolumesTest, MirroredVolumesFollowThoseOfTheKernel) {
  const std::string missing = missingTool({"sfdisk", "mkfs.vfat", "mcopy"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string image = folder_ / "fat.img";
  makeFATImage(image, 12, 4);
  const std::string first = makeDevice("first");
  const std::string second = makeDevice("second");
  inOwnNamespace([&] {
    mountAt(first, "one");
    ASSERT_TRUE(granted(mountNow(ports_, image + "s1")));
    mountAt(second, "two");
    std::vector<std::string> sources;
    for (const MountedVolume& volume : volumes()) sources.push_back(volume.mountedFrom);
    const auto end = std::remove_if(sources.begin(), sources.end(), [&](const auto& source) {
      return source != first && source != second && source != image + "s1";
    });
    sources.erase(end, sources.end());
    bool byKernel = false;  // most kernels support FAT
    runCommand("findmnt --mountpoint '" + mountPath(ports_, image + "s1") + "'", byKernel);
    using Sources = std::vector<std::string>;
    EXPECT_EQ(sources, byKernel ? Sources({first, image + "s1", second}) : Sources({first, second, image + "s1"}));
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s1")));
  });
}

// -------------------------------------------------------------------------------------------------- drivers and others

TEST_F(LinuxMountedVolumesTest, AForeignNTFSDriversVolumeIsListedUnderItsOwnName) {
  if (const std::string reason = FuseDriver::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  inOwnNamespace([&] {
    const FuseDriver driver("ntfs://disk4s1/My Data", makeFolder("Data"), FuseDriver::Sizes{1000, 200, 1024});
    const MountedVolume volume = volumeFrom("ntfs://disk4s1/My Data");
    EXPECT_EQ(volume.name, "Data");
    EXPECT_EQ(volume.mountPath, folder_ / "Data");
    EXPECT_EQ(volume.totalSize, 1024000U);
    EXPECT_EQ(volume.freeSpace, 204800U);
  });
}

TEST_F(LinuxMountedVolumesTest, OtherDriversWithoutADeviceAreNotListed) {
  if (const std::string reason = FuseDriver::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  inOwnNamespace([&] {
    const FuseDriver driver("user@server:/share", makeFolder("share"), FuseDriver::Sizes{1000, 200, 1024});
    EXPECT_EQ(listedInFolder(), 0);
    EXPECT_TRUE(driver.asked().empty()) << "the driver may be slow, so it must not be asked";
  });
}

TEST_F(LinuxMountedVolumesTest, ADriverThatNamesItsDeviceIsListedAsTheDevice) {
  if (const std::string reason = FuseDriver::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    const FuseDriver driver(device, makeFolder("place"), FuseDriver::Sizes{1000, 200, 1024});
    EXPECT_EQ(volumeFrom(device).name, "label");
    EXPECT_EQ(volumeFrom(device).totalSize, 1024000U);
  });
}

TEST_F(LinuxMountedVolumesTest, UnknownSizesAreAbsent) {
  if (const std::string reason = FuseDriver::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  inOwnNamespace([&] {
    const FuseDriver failing("ntfs://disk4s1/A", makeFolder("A"), std::nullopt);
    const FuseDriver lying("ntfs://disk4s2/B", makeFolder("B"), FuseDriver::Sizes{uint64_t{1} << 63, 3, 4096});
    EXPECT_FALSE(volumeFrom("ntfs://disk4s1/A").totalSize);
    EXPECT_FALSE(volumeFrom("ntfs://disk4s1/A").freeSpace);
    EXPECT_EQ(volumeFrom("ntfs://disk4s1/A").mountPath, folder_ / "A");
    EXPECT_FALSE(volumeFrom("ntfs://disk4s2/B").totalSize) << "2^75 bytes";
  });
}

TEST_F(LinuxMountedVolumesTest, ASlowFileSystemIsAskedOnceForItsSizesAndForNothingElse) {
  if (const std::string reason = FuseDriver::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  inOwnNamespace([&] {
    const std::string path = makeFolder("slow");
    const FuseDriver driver("ntfs://disk4s1/Slow", path, FuseDriver::Sizes{1000, 200, 1024},
                            std::chrono::milliseconds(300));
    for (const char* place : {"again", "and again", "and once more"}) {
      const std::string folder = makeFolder(place);
      ASSERT_EQ(mount(path.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    const std::map<uint32_t, int> before = driver.asked();
    static_cast<void>(volumes());
    std::map<uint32_t, int> asked = driver.asked();
    for (const auto& [question, count] : before) asked[question] -= count;
    std::erase_if(asked, [](const auto& question) { return question.second == 0; });
    EXPECT_EQ(asked, (std::map<uint32_t, int>{{FUSE_STATFS, 1}}));
  });
}

TEST_F(LinuxMountedVolumesTest, ASubvolumeIsAMountPointOfItsVolumeAndAFolderInItIsNot) {
  const std::string missing = missingTool({"mkfs.btrfs", "btrfs"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  if (readText("/proc/filesystems").find("\tbtrfs\n") == std::string::npos) {
    GTEST_SKIP() << "no btrfs in this kernel, or its module is not loaded";
  }
  const std::string image = folder_ / "tree.img";
  writeImage(image, {}, 128 << 20);
  shell("mkfs.btrfs -q -L tree '" + image + "'");
  devices_.push_back(shell("losetup --show --find '" + image + "'"));
  const std::string device = devices_.back();
  inOwnNamespace([&] {
    const std::string top = makeFolder("top");
    shell("mount -t btrfs " + device + " '" + top + "'");
    shell("btrfs subvolume create '" + top + "/@home'");
    fs::create_directory(top + "/@home/me");
    shell("umount '" + top + "'");
    shell("mount -t btrfs -o subvol=@home " + device + " '" + makeFolder("home") + "'");
    EXPECT_EQ(volumeFrom(device).mountPath, folder_ / "home");
    EXPECT_EQ(volumeFrom(device).name, "tree");
    shell("mount --bind '" + (folder_ / "home") + "/me' '" + makeFolder("me") + "'");
    shell("umount '" + (folder_ / "home") + "'");
    EXPECT_FALSE(volumeFrom(device).mountPath);
  });
}

TEST_F(LinuxMountedVolumesTest, TheTimeForThousandsOfMountsIsLinear) {
  const std::string device = makeDevice("label");
  inOwnNamespace([&] {
    const std::string path = mountAt(device, "place");
    const auto timeFor = [&](int from, int to) {
      for (int number = from; number < to; ++number) {
        const std::string folder = makeFolder("many/" + std::to_string(number));
        if (mount(path.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) != 0) throw std::runtime_error(folder);
      }
      const std::clock_t start = std::clock();  // only this process, because other tests run in parallel
      EXPECT_EQ(volumeFrom(device).mountPath, path);
      return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    };
    const double few = timeFor(0, 200);
    const double many = timeFor(200, 1600);
    EXPECT_LT(many, 20 * few + 0.2) << "8 times as many mounts took " << many << " s after " << few << " s";
  });
}

}  // namespace
}  // namespace vorlix::contract
