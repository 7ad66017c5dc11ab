// SPDX-License-Identifier: Apache-2.0
//
// Volumes that a driver in user space has mounted from a device or image. The kernel knows them only by the name that
// the driver chose. The drivers are ntfs-3g, fuse2fs, and drivers that lie.
#include <Vorlix/platform/MountedVolumes.h>
#include <fcntl.h>
#include <sys/sysmacros.h>

#include <Vorlix/platform/Descriptor.h>
#include "FuseDriver.h"
#include "MountNamespace.h"
#include "platform/linux/MountSources.h"
#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;
using test::FuseDriver;

class DriverMounts : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason = FuseDriver::unavailable();
    if (reason.empty()) reason = missingTool({"mkntfs", "ntfs-3g", "ntfscat", "mount", "umount", "unshare"});
    if (reason.empty()) reason = noMountNamespace();
    if (!reason.empty()) GTEST_SKIP() << reason;
  }

  std::string makeNTFS(const std::string& name, const std::string& label = "Driven") const {
    const std::string image = folder_ / name;
    writeImage(image, {}, 16 << 20);
    shell("mkntfs -F -q -L '" + label + "' '" + image + "'");
    return image;
  }
  std::string makeFolder(const std::string& name) const {
    fs::create_directories(folder_ / name);
    return folder_ / name;
  }
  /// Mounts an image at a new folder with ntfs-3g, which gets this name of the image.
  std::string drive(const std::string& image, const std::string& name) const {
    const std::string path = makeFolder(name);
    shell("cd '" + folder_.path().string() + "' && ntfs-3g '" + image + "' '" + path + "'");
    return path;
  }

  std::string mounted(const std::string& name) const { return mountPath(ports_, name); }
  std::vector<std::string> listed() const {
    std::vector<std::string> lines;
    for (const MountedVolume& volume : ports_.mountedVolumes->volumes()) {
      if (volume.mountedFrom.find(folder_.path().string()) == std::string::npos) continue;
      lines.push_back(volume.mountedFrom + " at " + volume.mountPath.value_or("(none)") + ", " + volume.name);
    }
    return lines;
  }
  using Lines = std::vector<std::string>;

  static size_t countMounts() {
    const std::string table = readText("/proc/self/mountinfo");
    return static_cast<size_t>(std::count(table.begin(), table.end(), '\n'));
  }

  TemporaryFolder folder_;
  const Platform ports_ = nativePlatform();
};

TEST_F(DriverMounts, AnImageIsListedDescribedAndFoundByItsPath) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    EXPECT_EQ(listed(), Lines({image + " at " + path + ", Driven"}));
    EXPECT_EQ(mounted(image), path);
    EXPECT_EQ(describe(ports_, image)->text(kDescriptionVolumeKind), "ntfs");
    const auto disk = ports_.diskArbitration->createSession()->diskFromVolumePath(URL::fileURLWithPath(path, true));
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->bsdName(), image);
  });
}

TEST_F(DriverMounts, AnImageIsNotMountedTwiceAndNoDataIsLost) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    for (int number = 0; number < 40; ++number) writeText(path + "/file " + std::to_string(number), "text");
    const size_t before = countMounts();
    EXPECT_TRUE(granted(mountNow(ports_, image, {"nobrowse", "rw"})));
    EXPECT_EQ(countMounts(), before);
    EXPECT_EQ(mounted(image), path);
    ASSERT_TRUE(granted(unmountNow(ports_, image)));
    EXPECT_EQ(countMounts(), before - 1);
    EXPECT_EQ(mounted(image), "");
    EXPECT_TRUE(listed().empty());
    // The unmount returns only after the driver has written everything.
    for (const char* number : {"0", "39"}) {
      EXPECT_EQ(shell("ntfscat '" + image + "' 'file " + number + "'"), "text");
    }
    EXPECT_TRUE(refused(unmountNow(ports_, image), kDissentNotMounted));
  });
}

TEST_F(DriverMounts, AVolumeInUseStaysMounted) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    writeText(path + "/open", "text");
    const Descriptor file(open((path + "/open").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(refused(unmountNow(ports_, image), kDissentBusy));
    EXPECT_EQ(mounted(image), path);
  });
}

TEST_F(DriverMounts, AVolumeCoveredByAnotherMountStaysMounted) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    shell("mount -t tmpfs above '" + path + "'");
    const size_t before = countMounts();
    EXPECT_TRUE(refused(unmountNow(ports_, image), kDissentBusy, path));
    EXPECT_EQ(countMounts(), before) << "the other mount must remain too";
    EXPECT_TRUE(granted(mountNow(ports_, image, {"rw"})));
    EXPECT_EQ(countMounts(), before);
    shell("umount '" + path + "'");
    EXPECT_TRUE(granted(unmountNow(ports_, image)));
  });
}

TEST_F(DriverMounts, AVolumeInACoveredFolderStaysMounted) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "folder/place");
    shell("mount -t tmpfs above '" + (folder_ / "folder") + "'");
    fs::create_directory(path);
    const size_t before = countMounts();
    EXPECT_TRUE(refused(unmountNow(ports_, image), kDissentBusy, path));
    EXPECT_EQ(countMounts(), before);
    shell("umount '" + (folder_ / "folder") + "'");
    EXPECT_TRUE(granted(unmountNow(ports_, image)));
    EXPECT_EQ(countMounts(), before - 2);
  });
}

TEST_F(DriverMounts, AVolumeMountedInSeveralPlacesIsUnmountedFromAll) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const size_t before = countMounts();
    const std::string path = drive("n.img", "place");
    fs::create_directory(path + "/inner");
    shell("mount --bind '" + path + "/inner' '" + makeFolder("inner") + "'");
    shell("mount --bind '" + path + "' '" + makeFolder("again") + "'");
    EXPECT_EQ(mounted(image), path);
    EXPECT_EQ(listed().size(), 1U);
    shell("umount '" + path + "'");
    EXPECT_EQ(mounted(image), folder_ / "again");
    EXPECT_TRUE(granted(unmountNow(ports_, image)));
    EXPECT_EQ(countMounts(), before);
  });
}

TEST_F(DriverMounts, UnusualNamesAndLinksLeadToTheImage) {
  const std::string odd = "a \\040\tb\n# (deleted)";
  const std::string image = makeNTFS(odd);
  fs::create_symlink(odd, folder_ / "link.img");
  inOwnNamespace([&] {
    const std::string path = drive("link.img", "place");
    EXPECT_EQ(mounted(image), path);
    EXPECT_EQ(mounted(folder_ / "link.img"), path);
    EXPECT_EQ(listed(), Lines({image + " at " + path + ", Driven"}));
    EXPECT_TRUE(granted(unmountNow(ports_, folder_ / "link.img")));
    EXPECT_EQ(mounted(image), "");
  });
}

TEST_F(DriverMounts, AFileThatReplacesAMountedOneIsNotMounted) {
  const std::string image = makeNTFS("n.img", "Old");
  const std::string other = makeNTFS("other.img", "New");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    fs::rename(other, image);
    EXPECT_EQ(mounted(image), "");
    EXPECT_TRUE(listed().empty()) << "the mounted image no longer has a name";
    EXPECT_TRUE(refused(unmountNow(ports_, image), kDissentNotMounted));
    writeText(path + "/still", "here");
    ASSERT_TRUE(granted(mountNow(ports_, image, {"rw"})));
    EXPECT_NE(mounted(image), path);
    ASSERT_TRUE(granted(unmountNow(ports_, image)));
    EXPECT_EQ(readText(path + "/still"), "here");
  });
}

TEST_F(DriverMounts, AMountedImageIsFoundUnderItsNewName) {
  const std::string image = makeNTFS("n.img");
  inOwnNamespace([&] {
    const std::string path = drive("n.img", "place");
    const std::string now = folder_ / "moved.img";
    fs::rename(image, now);
    EXPECT_EQ(mounted(now), path);
    EXPECT_EQ(listed(), Lines({now + " at " + path + ", Driven"}));
    writeImage(image, {}, 1 << 20);
    EXPECT_EQ(mounted(image), "");
    EXPECT_EQ(mounted(now), path);
  });
}

TEST_F(DriverMounts, ADeviceIsFoundByAnotherNode) {
  std::string reason = LoopWorld::unavailable();
  if (reason.empty()) reason = missingTool({"losetup", "mknod"});
  if (!reason.empty()) GTEST_SKIP() << reason;
  const std::string image = makeNTFS("n.img");
  const std::string device = shell("losetup --show --find '" + image + "'");
  inOwnNamespace([&] {
    struct stat status = {};
    ASSERT_EQ(stat(device.c_str(), &status), 0);
    const std::string node = folder_ / "another node";
    ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, status.st_rdev), 0);
    const std::string path = makeFolder("place");
    const FuseDriver driver(node, path, FuseDriver::Sizes{1000, 200, 1024});
    for (const std::string& name : {node, device, image}) EXPECT_EQ(mounted(name), path) << name;
    const std::vector<MountedVolume> volumes = ports_.mountedVolumes->volumes();
    EXPECT_EQ(std::count_if(volumes.begin(), volumes.end(), [&](const auto& v) { return v.mountedFrom == device; }), 1);
  });
  shell("losetup --detach " + device);
}

TEST_F(DriverMounts, ADriverWithAnOffsetHasMountedThatSlice) {
  const std::string missing = missingTool({"fuse2fs", "mkfs.ext4", "sgdisk"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string image = folder_ / "slices.img";
  writeImage(image, {}, 24 << 20);
  shell("sgdisk --clear --new=1:2048:+4M --new=2:16384:+8M '" + image + "'");
  shell("mkfs.ext4 -q -L second -E offset=8388608 '" + image + "' 8M");
  inOwnNamespace([&] {
    const std::string path = makeFolder("place");
    // This driver passes on the name as given, which is relative.
    shell("cd '" + folder_.path().string() + "' && fuse2fs -o offset=8388608,rw ./slices.img '" + path + "'");
    EXPECT_EQ(mounted(image + "s2"), path);
    EXPECT_EQ(mounted(image + "s1"), "");
    EXPECT_EQ(mounted(image), "");
    EXPECT_EQ(listed(), Lines({image + "s2 at " + path + ", second"}));
    EXPECT_TRUE(granted(unmountNow(ports_, image + "s2")));
    EXPECT_EQ(mounted(image + "s2"), "");
  });
}

TEST_F(DriverMounts, ARelativeNameIsNotResolvedInThisProcessesFolder) {
  const std::string image = makeNTFS("same name.img");
  inOwnNamespace([&] {
    fs::current_path(folder_.path());
    const FuseDriver driver("same name.img", makeFolder("place"), FuseDriver::Sizes{1000, 200, 1024});
    // Do not open the mount: this process is the driver and would block.
    const std::optional<DeviceLocation> location = locateDevice(image);
    ASSERT_TRUE(location);
    EXPECT_TRUE(mountsOf(*location, {}).empty()) << "nothing identifies the image yet";
    const Descriptor held(open(image.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(mountsOf(*location, {}).size(), 1U);
    EXPECT_EQ(mounted(image), folder_ / "place");
  });
}

TEST_F(DriverMounts, ANameThatAnotherUserInventedIsIgnored) {
  const std::string image = makeNTFS("n.img");
  fs::permissions(image, fs::perms::owner_read | fs::perms::owner_write);
  inOwnNamespace([&] {
    const FuseDriver driver(image, makeFolder("place"), FuseDriver::Sizes{1000, 200, 1024}, {}, kOrdinaryUser);
    EXPECT_EQ(mounted(image), "");
    EXPECT_TRUE(listed().empty());
    fs::permissions(image, fs::perms::others_read, fs::perm_options::add);
    EXPECT_EQ(mounted(image), "") << "the mount is writable, but the user may not write to the image";
    ASSERT_EQ(chown(image.c_str(), kOrdinaryUser, 0), 0);
    EXPECT_EQ(mounted(image), folder_ / "place");
  });
}

TEST_F(DriverMounts, FoldersAndOtherDevicesAreNotVolumes) {
  inOwnNamespace([&] {
    const FuseDriver onFolder(makeFolder("source"), makeFolder("one"), FuseDriver::Sizes{1000, 200, 1024});
    const FuseDriver onDevice("/dev/null", makeFolder("two"), FuseDriver::Sizes{1000, 200, 1024});
    const FuseDriver onNothing(folder_ / "missing.img", makeFolder("three"), FuseDriver::Sizes{1000, 200, 1024});
    EXPECT_TRUE(listed().empty());
  });
}

TEST_F(DriverMounts, AnOrdinaryUserUnmountsOwnVolumesAndGetsTheReasonForOthers) {
  const std::string missing = missingTool({"fusermount3"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string own = makeNTFS("own.img");
  const std::string others = makeNTFS("others.img");
  inOwnNamespace([&] {
    const std::string path = drive("others.img", "others");
    makeFolder("own");
    asOrdinaryUser(folder_, [&] {
      bool ok = false;
      const std::string text = runCommand("ntfs-3g '" + own + "' '" + (folder_ / "own") + "' 2>&1", ok);
      if (!ok) GTEST_SKIP() << "users cannot mount anything here: " << text;
      EXPECT_EQ(mounted(own), folder_ / "own");
      EXPECT_TRUE(granted(mountNow(ports_, own, {"rw"})));
      EXPECT_TRUE(granted(unmountNow(ports_, own)));
      EXPECT_EQ(mounted(own), "");
      EXPECT_EQ(mounted(others), path);
      EXPECT_TRUE(refused(unmountNow(ports_, others), kDissentNotPrivileged));
      EXPECT_EQ(mounted(others), path);
    });
  });
}

}  // namespace
}  // namespace vorlix::contract
