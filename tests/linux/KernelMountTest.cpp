// SPDX-License-Identifier: Apache-2.0
//
// Mounts that the kernel makes for the super-user: block devices, image files through loop devices, mount helpers, and
// mounts by other programs.
#include <sys/statvfs.h>

#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

class KernelMounts : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason = LoopWorld::unavailable();
    if (reason.empty()) reason = missingTool({"mkfs.ext4", "mount", "umount", "losetup", "findmnt"});
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  void TearDown() override {
    bool ok = false;
    for (const std::string& path : {folder_ / "own place", mounted(image_)}) {
      if (!path.empty()) runCommand("umount '" + path + "' 2>&1", ok);
    }
    for (const std::string& device : devices_) {
      const std::string path = mounted(device);
      if (!path.empty()) runCommand("umount '" + path + "' 2>&1", ok);
      runCommand("losetup --detach " + device + " 2>&1", ok);
    }
  }

  void makeExt4() const {
    writeImage(image_, {}, 16 << 20);
    shell("mkfs.ext4 -q -L '" + label_ + "' -U 01234567-89ab-cdef-0123-456789abcdef '" + image_ + "'");
  }
  void makeDamagedExt4() const {
    makeExt4();
    std::fstream image(image_, std::ios::in | std::ios::out | std::ios::binary);
    image.seekp(1024 + 24);  // log2 of the block size minus 10
    image.write("\x30\x00\x00\x00", 4);
  }
  void makeNTFS() const {
    writeImage(image_, {}, 16 << 20);
    shell("mkntfs -F -q -L '" + label_ + "' '" + image_ + "'");
  }
  std::string attach(const std::string& options = "") {
    devices_.push_back(shell("losetup --show --find " + options + " '" + image_ + "'"));
    return devices_.back();
  }
  std::string folder() const { return "/run/vorlix/" + label_; }
  std::string mounted(const std::string& name) const { return mountPath(ports_, name); }

  /// The kernel releases a loop device some time after the unmount, so wait for it.
  void expectNoLoopDeviceLeft() const {
    std::string now;
    for (int i = 0; i < 100; ++i) {
      now = shell("losetup --all --noheadings --output NAME,BACK-FILE");
      if (now.find(image_) == std::string::npos) return;
      usleep(50000);
    }
    FAIL() << now;
  }

  TemporaryFolder folder_;
  const std::string image_ = folder_ / "disk.img";
  const std::string label_ = "Vol " + std::to_string(getpid());  // tests may run in parallel
  const Platform ports_ = nativePlatform();
  std::vector<std::string> devices_;
};

TEST_F(KernelMounts, ABlockDeviceIsMountedInAFolderNamedAfterItsLabel) {
  makeExt4();
  const std::string device = attach();
  ASSERT_TRUE(granted(mountNow(ports_, device, {"rw"})));
  const std::string path = mounted(device);
  EXPECT_EQ(path, folder());
  EXPECT_EQ(shell("findmnt --noheadings --output SOURCE,FSTYPE '" + path + "'"), device + " ext4");
  const std::string options = shell("findmnt --noheadings --output OPTIONS '" + path + "'");
  for (const char* option : {"rw", "nosuid", "nodev"}) EXPECT_NE(options.find(option), std::string::npos) << options;
  writeText(path + "/new.txt", "new");
  ASSERT_TRUE(granted(unmountNow(ports_, device)));
  EXPECT_EQ(mounted(device), "");
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(shell("debugfs -R 'cat /new.txt' " + device + " 2>/dev/null"), "new");
}

TEST_F(KernelMounts, AVolumeIsDescribed) {
  makeExt4();
  const std::string device = attach();
  const auto description = describe(ports_, device);
  ASSERT_TRUE(description.has_value());
  EXPECT_EQ(description->text(kDescriptionVolumeKind), "ext4");
  EXPECT_EQ(description->text(kDescriptionVolumeName), label_);
  EXPECT_EQ(description->uuid(kDescriptionVolumeUUID), UUID::fromText("01234567-89AB-CDEF-0123-456789ABCDEF"));
  EXPECT_EQ(description->text(kDescriptionMediaBSDName), device.substr(5));
  EXPECT_EQ(description->integer(kDescriptionMediaSize), 16 << 20);
  EXPECT_EQ(description->boolean(kDescriptionMediaWhole), true);
  EXPECT_EQ(description->boolean(kDescriptionMediaWritable), true);
  EXPECT_EQ(description->boolean(kDescriptionDeviceInternal), false);
  EXPECT_EQ(description->integer(kDescriptionDeviceUnit), std::stoi(device.substr(std::string("/dev/loop").size())));
  EXPECT_FALSE(description->contains(kDescriptionMediaUUID));
}

TEST_F(KernelMounts, ABusyVolumeStaysMounted) {
  makeExt4();
  const std::string device = attach();
  ASSERT_TRUE(granted(mountNow(ports_, device)));
  const std::string path = mounted(device);
  const int open = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(refused(unmountNow(ports_, device), kDissentBusy));
  EXPECT_EQ(mounted(device), path);
  close(open);
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
}

TEST_F(KernelMounts, AVolumeMountedBySomeoneElseStaysThereAndCanBeUnmounted) {
  makeExt4();
  const std::string device = attach();
  fs::create_directory(folder_ / "own place");
  shell("mount " + device + " '" + (folder_ / "own place") + "'");
  EXPECT_EQ(mounted(device), folder_ / "own place");
  EXPECT_TRUE(granted(mountNow(ports_, device, {"nobrowse", "rw"})));
  EXPECT_EQ(shell("findmnt --noheadings --output TARGET " + device), folder_ / "own place");
  const auto session = ports_.diskArbitration->createSession();
  const auto found = session->diskFromVolumePath(URL::fileURLWithPath(folder_ / "own place"));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->bsdName(), device.substr(5));
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
  EXPECT_EQ(mounted(device), "");
  EXPECT_TRUE(fs::exists(folder_ / "own place")) << "the library did not create the folder, so it must stay";
}

TEST_F(KernelMounts, AVolumeMountedInTwoPlacesIsUnmountedFromBoth) {
  makeExt4();
  const std::string device = attach();
  fs::create_directory(folder_ / "own place");
  shell("mount " + device + " '" + (folder_ / "own place") + "'");
  fs::create_directory(folder_ / "second");
  shell("mount --bind '" + (folder_ / "own place/lost+found") + "' '" + (folder_ / "second") + "'");
  EXPECT_EQ(mounted(device), folder_ / "own place") << "a bind mount of a folder is not the volume's mount point";
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
  bool ok = true;
  runCommand("findmnt " + device, ok);
  EXPECT_FALSE(ok);
}

TEST_F(KernelMounts, AnImageMountedBySomeoneElseIsFound) {
  makeExt4();
  fs::create_directory(folder_ / "own place");
  shell("mount -o loop '" + image_ + "' '" + (folder_ / "own place") + "'");
  EXPECT_EQ(mounted(image_), folder_ / "own place");
  EXPECT_TRUE(granted(mountNow(ports_, image_)));
  EXPECT_TRUE(granted(unmountNow(ports_, image_)));
  EXPECT_EQ(mounted(image_), "");
  expectNoLoopDeviceLeft();
}

TEST_F(KernelMounts, SlicesOfAnImageAreMountedThroughLoopDevices) {
  const std::string missing = missingTool({"sgdisk"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  writeImage(image_, {}, 40 << 20);
  shell("sgdisk --clear --new=1:2048:+16M --new=2:+0:+16M '" + image_ + "'");
  shell("mkfs.ext4 -q -L one -E offset=1048576 '" + image_ + "' 16M");
  shell("mkfs.ext4 -q -L two -E offset=17825792 '" + image_ + "' 16M");
  ASSERT_TRUE(granted(mountNow(ports_, image_ + "s1")));
  ASSERT_TRUE(granted(mountNow(ports_, image_ + "s2", {"rw"})));
  EXPECT_EQ(mounted(image_ + "s1"), "/run/vorlix/one");
  EXPECT_EQ(mounted(image_ + "s2"), "/run/vorlix/two");
  const auto session = ports_.diskArbitration->createSession();
  const auto found = session->diskFromVolumePath(URL::fileURLWithPath("/run/vorlix/two"));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->bsdName(), image_ + "s2");
  writeText("/run/vorlix/two/new.txt", "new");
  EXPECT_TRUE(granted(unmountNow(ports_, image_ + "s1")));
  EXPECT_EQ(mounted(image_ + "s2"), "/run/vorlix/two");
  EXPECT_TRUE(granted(unmountNow(ports_, image_ + "s2")));
  EXPECT_EQ(mounted(image_ + "s2"), "");
  expectNoLoopDeviceLeft();
  EXPECT_EQ(shell("debugfs -R 'cat /new.txt' '" + image_ + "?offset=17825792' 2>/dev/null"), "new");
}

TEST_F(KernelMounts, AReadOnlyDeviceIsMountedForReadingOnly) {
  makeExt4();
  const std::string device = attach("--read-only");
  EXPECT_TRUE(refused(mountNow(ports_, device, {"rw"}), kDissentNotWritable));
  EXPECT_EQ(mounted(device), "");
  EXPECT_EQ(describe(ports_, device)->boolean(kDescriptionMediaWritable), false);
  ASSERT_TRUE(granted(mountNow(ports_, device)));
  EXPECT_FALSE(std::ofstream(mounted(device) + "/new.txt").is_open());
  EXPECT_TRUE(refused(mountNow(ports_, device, {"rw"}), kDissentNotWritable));
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
}

TEST_F(KernelMounts, NobrowseIsTheDesktopsHideOption) {
  makeExt4();
  const std::string device = attach();
  ASSERT_TRUE(granted(mountNow(ports_, device, {"nobrowse"})));
  // The kernel does not keep this option. libmount stores such options in its own table.
  std::string options;
  std::ifstream table("/run/mount/utab");
  for (std::string line; std::getline(table, line);) {
    if (line.find(device) != std::string::npos) options = line;
  }
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
  if (!table.is_open()) GTEST_SKIP() << "libmount has no table of such options on this machine";
  EXPECT_NE(options.find("x-gvfs-hide"), std::string::npos) << options;
}

TEST_F(KernelMounts, ADamagedFileSystemIsRefusedAndLeavesNothingBehind) {
  makeDamagedExt4();
  const std::string device = attach();
  const auto answer = mountNow(ports_, device);
  EXPECT_TRUE(answer.has_value());
  EXPECT_EQ(statusOf(answer), kDissentUnsupported) << textOf(answer);
  EXPECT_EQ(mounted(device), "");
  EXPECT_FALSE(fs::exists(folder()));
}

TEST_F(KernelMounts, ADamagedFileSystemInAnImageIsNeitherAttachedNorOpenAfterwards) {
  makeDamagedExt4();
  const auto before = openDescriptors();
  const auto answer = mountNow(ports_, image_);
  EXPECT_EQ(statusOf(answer), kDissentUnsupported) << textOf(answer);
  EXPECT_EQ(openDescriptors(), before);
  expectNoLoopDeviceLeft();
}

TEST_F(KernelMounts, NTFSIsMountedByItsHelper) {
  const std::string missing = missingTool({"mkntfs", "ntfs-3g", "ntfscat"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  if (!fs::exists("/dev/fuse")) GTEST_SKIP() << "no /dev/fuse on this machine";
  makeNTFS();
  ASSERT_TRUE(granted(mountNow(ports_, image_, {"nobrowse", "rw"})));
  const std::string path = mounted(image_);
  EXPECT_EQ(path, folder());
  EXPECT_EQ(describe(ports_, image_)->text(kDescriptionVolumeKind), "ntfs");
  writeText(path + "/new.txt", "new");
  {
    const std::ifstream open(path + "/new.txt");
    EXPECT_TRUE(refused(unmountNow(ports_, image_), kDissentBusy));
  }
  EXPECT_TRUE(granted(unmountNow(ports_, image_)));
  EXPECT_FALSE(fs::exists(path));
  expectNoLoopDeviceLeft();
  EXPECT_EQ(shell("ntfscat '" + image_ + "' new.txt"), "new");
}

TEST_F(KernelMounts, AHibernatedNTFSIsNotMountedForWritingAndTheReasonIsReported) {
  const std::string missing = missingTool({"mkntfs", "ntfs-3g"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  if (!fs::exists("/dev/fuse")) GTEST_SKIP() << "no /dev/fuse on this machine";
  makeNTFS();
  const std::string device = attach();
  ASSERT_TRUE(granted(mountNow(ports_, device, {"rw"})));
  std::string hibernation(16384, '\0');
  hibernation.replace(0, 4, "hibr");
  writeText(mounted(device) + "/hiberfil.sys", hibernation);
  ASSERT_TRUE(granted(unmountNow(ports_, device)));

  EXPECT_TRUE(refused(mountNow(ports_, device, {"rw"}), kDissentNotWritable, "hibernated"));
  EXPECT_EQ(mounted(device), "");
  EXPECT_FALSE(fs::exists(folder()));
  ASSERT_TRUE(granted(mountNow(ports_, device))) << "it can still be mounted for reading";
  EXPECT_FALSE(std::ofstream(mounted(device) + "/new.txt").is_open());
  EXPECT_TRUE(granted(unmountNow(ports_, device)));
}

TEST_F(KernelMounts, TheRootFileSystemIsFoundByItsPath) {
  const std::string source = shell("findmnt --noheadings --output SOURCE /");
  const auto session = ports_.diskArbitration->createSession();
  const auto disk = session->diskFromVolumePath(URL::fileURLWithPath("/"));
  if (!disk) GTEST_SKIP() << source << " is not a block device";
  const std::string name = *disk->bsdName();
  EXPECT_EQ(mounted(name), "/");
}

}  // namespace
}  // namespace vorlix::contract
