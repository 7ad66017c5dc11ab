// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/DiskArbitration.h for mounting and unmounting, on every machine that is possible here.
#include "Volumes.h"
#ifdef VORLIX_MACOS_STANDINS
#include "tests/macos/standin/System.h"
#endif

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

/// A disk with a volume in slice 1 that this user can mount.
class MountWorld {
 public:
  virtual ~MountWorld() = default;
  virtual Platform ports() const = 0;
  virtual std::string disk() const = 0;
  virtual std::string kind() const { return "msdos"; }
  virtual bool isReal() const { return true; }
  std::string volume() const { return disk() + "s1"; }
  /// Returns a label that is unique to this process. Folders are named after labels, and tests may run in parallel.
  std::string label() const { return "EFI " + std::to_string(getpid()); }
};

class SimulatedMountWorld : public MountWorld {
 public:
  SimulatedMountWorld() {
    machine_.addDisk("disk0", 1 << 20, 512);
    machine_.addSlice("disk0", 1, 40, 100);
    machine_.setVolume("disk0s1", {"msdos", label(), std::nullopt, "/Volumes/" + label()});
  }
  Platform ports() const override { return machine_.platform(); }
  std::string disk() const override { return "disk0"; }
  bool isReal() const override { return false; }

 protected:
  SimulatedMachine machine_;
};

#ifdef VORLIX_MACOS_STANDINS
/// The same machine through the adapters of macOS.
class NodeMountWorld final : public SimulatedMountWorld {
 public:
  Platform ports() const override { return nativePlatform(); }

 private:
  standin::Shown shown_{machine_};
};
#endif

class ImageMountWorld : public MountWorld {
 public:
  ImageMountWorld() { makeFATImage(image(), 16, 16, label()); }
  Platform ports() const override { return nativePlatform(); }
  std::string disk() const override { return image(); }

 protected:
  std::string image() const { return folder_ / "mac.img"; }

 private:
  TemporaryFolder folder_;
};

/// Slice 1 of a loop device, which may or may not have its own node.
class LoopMountWorld final : public ImageMountWorld {
 public:
  LoopMountWorld() {
    device_ = shell("losetup --show --find '" + image() + "'");
    bool ok = false;
    runCommand("partx --add " + device_ + " 2>&1", ok);
  }
  ~LoopMountWorld() override {
    bool ok = false;
    runCommand("partx --delete " + device_ + " 2>&1; losetup --detach " + device_, ok);
  }
  std::string disk() const override { return device_; }

 private:
  std::string device_;
};

struct MountWorldKind {
  const char* name;
  std::function<std::unique_ptr<MountWorld>(std::string& reason)> make;
};

void PrintTo(const MountWorldKind& kind, std::ostream* stream) {
  *stream << kind.name;
}

std::unique_ptr<MountWorld> makeImageWorld(std::string& reason) {
  reason = missingTool({"sfdisk", "mkfs.vfat", "mcopy"});
#if defined(__APPLE__) || defined(VORLIX_MACOS_STANDINS)
  reason = "image files are not mounted by this system's disk arbitration";
#endif
  return reason.empty() ? std::make_unique<ImageMountWorld>() : nullptr;
}

std::unique_ptr<MountWorld> makeLoopWorld(std::string& reason) {
  reason = LoopWorld::unavailable();
#ifdef VORLIX_MACOS_STANDINS
  reason = "the adapters of macOS do not know loop devices";
#endif
  if (reason.empty()) reason = missingTool({"sfdisk", "mkfs.vfat", "mcopy", "partx"});
  return reason.empty() ? std::make_unique<LoopMountWorld>() : nullptr;
}

std::string kindName(const testing::TestParamInfo<MountWorldKind>& kind) {
  return kind.param.name;
}

class MountingContract : public testing::TestWithParam<MountWorldKind> {
 protected:
  void SetUp() override {
    std::string reason;
    world_ = GetParam().make(reason);
    if (!world_) GTEST_SKIP() << reason;
    ports_ = world_->ports();
  }
  void TearDown() override {
    if (world_ && !mountPath(ports_, world_->volume()).empty()) unmountNow(ports_, world_->volume());
  }

  std::unique_ptr<MountWorld> world_;
  Platform ports_;
};

TEST_P(MountingContract, AVolumeIsMountedAndUnmounted) {
  const std::string volume = world_->volume();
  EXPECT_EQ(mountPath(ports_, volume), "");
  const auto refused = mountNow(ports_, volume);
  ASSERT_FALSE(refused) << textOf(refused);
  const std::string path = mountPath(ports_, volume);
  ASSERT_NE(path, "");
  EXPECT_TRUE(describe(ports_, volume)->url(kDescriptionVolumePath)->hasDirectoryPath());
  if (world_->isReal()) {
    EXPECT_EQ(readText(path + "/readme.txt"), "read me");
    EXPECT_EQ(readText(path + "/EFI/Boot/bootx64.efi"), "boot code");
  }
  const auto stuck = unmountNow(ports_, volume);
  EXPECT_FALSE(stuck) << textOf(stuck);
  EXPECT_EQ(mountPath(ports_, volume), "");
  if (world_->isReal()) {
    EXPECT_FALSE(fs::exists(path));
  }
}

TEST_P(MountingContract, AHiddenReadWriteMountIsAValidRequest) {
  const auto refused = mountNow(ports_, world_->volume(), {"nobrowse", "rw"});
  ASSERT_FALSE(refused) << textOf(refused);
  if (world_->isReal()) writeText(mountPath(ports_, world_->volume()) + "/new.txt", "new");
  const auto stuck = unmountNow(ports_, world_->volume());
  EXPECT_FALSE(stuck) << textOf(stuck);
}

TEST_P(MountingContract, WrittenDataIsThereAtTheNextMount) {
  if (!world_->isReal()) GTEST_SKIP() << "the simulated machine has no files";
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume(), {"rw"})));
  const std::string first = mountPath(ports_, world_->volume());
  fs::create_directory(first + "/new folder");
  writeText(first + "/new folder/new.txt", "new");
  writeText(first + "/readme.txt", "changed");
  fs::remove(first + "/EFI/Boot/bootx64.efi");
  ASSERT_TRUE(granted(unmountNow(ports_, world_->volume())));
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  const std::string second = mountPath(ports_, world_->volume());
  EXPECT_EQ(readText(second + "/new folder/new.txt"), "new");
  EXPECT_EQ(readText(second + "/readme.txt"), "changed");
  EXPECT_TRUE(fs::is_empty(second + "/EFI/Boot"));
}

TEST_P(MountingContract, AMountedVolumeIsFoundByItsPath) {
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  const std::string path = mountPath(ports_, world_->volume());
  const auto session = ports_.diskArbitration->createSession();
  const auto disk = session->diskFromVolumePath(URL::fileURLWithPath(path));
  ASSERT_TRUE(disk);
  EXPECT_EQ(disk->bsdName(), session->diskFromBSDName(world_->volume())->bsdName());
  ASSERT_TRUE(granted(unmountNow(ports_, world_->volume())));
  EXPECT_FALSE(session->diskFromVolumePath(URL::fileURLWithPath(path)));
}

TEST_P(MountingContract, NoVolumeIsFoundAtOtherPathsOrInsideAVolume) {
  const auto session = ports_.diskArbitration->createSession();
  EXPECT_FALSE(session->diskFromVolumePath(URL::fileURLWithPath("/no/such/path")));
  EXPECT_FALSE(session->diskFromVolumePath(URL::fileURLWithPath("")));
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  const std::string inside = mountPath(ports_, world_->volume()) + "/EFI";
  EXPECT_FALSE(session->diskFromVolumePath(URL::fileURLWithPath(inside)));
}

TEST_P(MountingContract, AVolumeThatIsNotMountedCannotBeUnmounted) {
  EXPECT_EQ(statusOf(unmountNow(ports_, world_->volume())), kDissentNotMounted);
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  ASSERT_TRUE(granted(unmountNow(ports_, world_->volume())));
  EXPECT_EQ(statusOf(unmountNow(ports_, world_->volume())), kDissentNotMounted);
}

TEST_P(MountingContract, ADiskWithoutAFileSystemIsNotMounted) {
  EXPECT_EQ(statusOf(mountNow(ports_, world_->disk())), kDissentUnsupported);
  EXPECT_EQ(mountPath(ports_, world_->disk()), "");
}

TEST_P(MountingContract, AnUnknownNameHasNoDisk) {
  const auto session = ports_.diskArbitration->createSession();
  EXPECT_FALSE(session->diskFromBSDName("no-such-disk"));
  EXPECT_FALSE(session->diskFromBSDName(""));
  EXPECT_FALSE(session->diskFromBSDName(world_->disk() + "s2"));
}

TEST_P(MountingContract, ASliceAndItsDiskHaveTheSameWholeDisk) {
  const auto session = ports_.diskArbitration->createSession();
  const auto whole = session->diskFromBSDName(world_->disk());
  const auto slice = session->diskFromBSDName(world_->volume());
  ASSERT_TRUE(slice->wholeDisk());
  ASSERT_TRUE(whole->wholeDisk());
  EXPECT_EQ(slice->wholeDisk()->bsdName(), whole->bsdName());
  EXPECT_EQ(whole->wholeDisk()->bsdName(), whole->bsdName());
}

TEST_P(MountingContract, ANameWithTheDevicePrefixFindsTheSameDisk) {
  const auto session = ports_.diskArbitration->createSession();
  const auto name = session->diskFromBSDName(world_->volume())->bsdName();
  ASSERT_TRUE(name.has_value());
  const auto again = session->diskFromBSDName("/dev/" + *name);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->bsdName(), name);
}

TEST_P(MountingContract, ARequestWithoutACompletionIsExecutedWhenTheSessionEnds) {
  auto session = ports_.diskArbitration->createSession();
  auto disk = session->diskFromBSDName(world_->volume());
  disk->mount({}, nullptr);
  disk.reset();
  session.reset();
  EXPECT_NE(mountPath(ports_, world_->volume()), "");
}

TEST_P(MountingContract, ARequestToADiskThatOutlivedItsSessionIsExecutedAtOnce) {
  auto session = ports_.diskArbitration->createSession();
  const auto disk = session->diskFromBSDName(world_->volume());
  session.reset();
  disk->mount({}, nullptr);
  EXPECT_NE(mountPath(ports_, world_->volume()), "");
  disk->unmount(nullptr);
  EXPECT_EQ(mountPath(ports_, world_->volume()), "");
}

TEST_P(MountingContract, NothingHappensBeforeTheLoopRuns) {
  const auto session = ports_.diskArbitration->createSession();
  const auto loop = ports_.runLoops->current();
  session->schedule(*loop, kDefaultRunLoopMode);
  bool done = false;
  session->diskFromBSDName(world_->volume())->mount({}, [&](const std::optional<Dissenter>& dissenter) {
    EXPECT_FALSE(dissenter) << textOf(dissenter);
    EXPECT_NE(mountPath(ports_, world_->volume()), "");
    done = true;
  });
  EXPECT_FALSE(done);
  EXPECT_EQ(mountPath(ports_, world_->volume()), "");
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, std::chrono::seconds(20)), RunLoopResult::handledSource);
  EXPECT_TRUE(done);
}

TEST_P(MountingContract, TheDescriptionIncludesTheVolume) {
  const auto description = describe(ports_, world_->volume());
  ASSERT_TRUE(description.has_value());
  EXPECT_EQ(description->text(kDescriptionVolumeKind), world_->kind());
  EXPECT_EQ(description->text(kDescriptionVolumeType), world_->kind());
  EXPECT_EQ(description->text(kDescriptionVolumeName), world_->label());
  EXPECT_EQ(description->boolean(kDescriptionVolumeMountable), true);
  EXPECT_FALSE(description->contains(kDescriptionVolumeUUID)) << "a FAT volume has only a serial number";
}

TEST_P(MountingContract, MountingLeavesNothingOpen) {
  if (!world_->isReal()) GTEST_SKIP() << "the simulated machine opens nothing";
  const auto before = openDescriptors();
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  EXPECT_EQ(openDescriptors(), before);
  ASSERT_TRUE(granted(unmountNow(ports_, world_->volume())));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(MountingContract, ABusyVolumeStaysMounted) {
  if (!world_->isReal()) GTEST_SKIP() << "the simulated machine has no files to open";
  ASSERT_TRUE(granted(mountNow(ports_, world_->volume())));
  const std::string path = mountPath(ports_, world_->volume());
  {
    const std::ifstream open(path + "/readme.txt");
    ASSERT_TRUE(open.is_open());
    const auto refused = unmountNow(ports_, world_->volume());
    EXPECT_EQ(statusOf(refused), kDissentBusy) << textOf(refused);
    EXPECT_EQ(mountPath(ports_, world_->volume()), path);
    EXPECT_EQ(readText(path + "/readme.txt"), "read me");
  }
  EXPECT_TRUE(granted(unmountNow(ports_, world_->volume())));
}

#ifdef VORLIX_MACOS_STANDINS
INSTANTIATE_TEST_SUITE_P(MacOS, MountingContract,
                         testing::Values(MountWorldKind{
                             "Node", [](std::string&) { return std::make_unique<NodeMountWorld>(); }}),
                         kindName);
#endif
INSTANTIATE_TEST_SUITE_P(
    Worlds, MountingContract,
    testing::Values(MountWorldKind{"Simulated", [](std::string&) { return std::make_unique<SimulatedMountWorld>(); }},
                    MountWorldKind{"Image", makeImageWorld}, MountWorldKind{"Loop", makeLoopWorld}),
    kindName);

}  // namespace
}  // namespace vorlix::contract
