// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/MountedVolumes.h, on the simulated machine and on this one. The tests in the linux folder
// make their own mounts.
#include <Vorlix/platform/MountedVolumes.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

using testing::ElementsAre;

std::unique_ptr<SimulatedMachine> simulatedMachine() {
  auto machine = std::make_unique<SimulatedMachine>();
  machine->addMountedVolume({"System", "/", "/dev/disk0s2", 500, 200});
  machine->addMountedVolume({"Gone meanwhile", "/Volumes/Gone meanwhile", "/dev/disk1s1", std::nullopt, std::nullopt});
  machine->addMountedVolume({"Nowhere", std::nullopt, "/dev/disk1s2", 300, 300});
  machine->addMountedVolume({"Data", "/Volumes/Data", "ntfs://disk4s1/Data", 100, 0});
  return machine;
}

class MountedVolumesContract : public testing::TestWithParam<bool> {
 protected:
  MountedVolumesContract() {
    if (!GetParam()) return;
    machine_ = simulatedMachine();
    ports_ = machine_->platform();
  }

  std::vector<MountedVolume> volumes() const { return ports_.mountedVolumes->volumes(); }

  std::unique_ptr<SimulatedMachine> machine_;
  Platform ports_ = nativePlatform();
};

std::vector<std::string> sourcesOf(const std::vector<MountedVolume>& volumes) {
  std::vector<std::string> sources;
  for (const MountedVolume& volume : volumes) sources.push_back(volume.mountedFrom);
  return sources;
}

TEST_P(MountedVolumesContract, EachDeviceIsListedOnce) {
  const std::vector<std::string> sources = sourcesOf(volumes());
  for (const std::string& source : sources) {
    if (source.rfind("/dev/", 0) != 0) continue;
    EXPECT_EQ(std::count(sources.begin(), sources.end(), source), 1) << source;
  }
}

TEST_P(MountedVolumesContract, EveryVolumeHasANameAndASourceAndPathsAreAbsolute) {
  for (const MountedVolume& volume : volumes()) {
    EXPECT_NE(volume.name, "") << volume.mountedFrom;
    EXPECT_NE(volume.mountedFrom, "") << volume.name;
    EXPECT_EQ(volume.mountPath.value_or("/").substr(0, 1), "/") << *volume.mountPath;
  }
}

TEST_P(MountedVolumesContract, FreeSpaceDoesNotExceedTheTotalSize) {
  for (const MountedVolume& volume : volumes()) {
    EXPECT_EQ(volume.totalSize.has_value(), volume.freeSpace.has_value()) << volume.mountedFrom;
    EXPECT_LE(volume.freeSpace.value_or(0), volume.totalSize.value_or(0)) << volume.mountedFrom;
  }
}

// Other programs may mount and unmount volumes in the meantime.
TEST_P(MountedVolumesContract, TheOrderIsStable) {
  std::vector<std::string> first = sourcesOf(volumes());
  std::vector<std::string> second = sourcesOf(volumes());
  const auto keepOthers = [](std::vector<std::string>& list, const std::vector<std::string>& others) {
    std::erase_if(list,
                  [&](const auto& entry) { return std::find(others.begin(), others.end(), entry) == others.end(); });
  };
  keepOthers(first, second);
  keepOthers(second, first);
  EXPECT_EQ(first, second);
}

TEST_P(MountedVolumesContract, ListingLeavesNothingOpen) {
  const auto before = openDescriptors();
  static_cast<void>(volumes());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(MountedVolumesContract, TheRootVolumeMatchesDiskArbitration) {
  if (GetParam()) GTEST_SKIP() << "the simulated machine keeps mounts for disk arbitration separately";
  const auto session = ports_.diskArbitration->createSession();
  const auto disk = session ? session->diskFromVolumePath(URL::fileURLWithPath("/")) : nullptr;
  if (!disk) GTEST_SKIP() << "\"/\" is not on a disk on this machine";
  const std::vector<MountedVolume> list = volumes();
  const auto root = std::find_if(list.begin(), list.end(), [](const auto& volume) { return volume.mountPath == "/"; });
  if (root == list.end()) GTEST_SKIP() << "\"/\" is a folder of a volume on this machine";
  const auto named = session->diskFromBSDName(root->mountedFrom);
  ASSERT_TRUE(named) << root->mountedFrom;
  EXPECT_EQ(named->bsdName(), disk->bsdName());
  EXPECT_GT(root->totalSize.value_or(0), 0U);
}

INSTANTIATE_TEST_SUITE_P(Machines, MountedVolumesContract, testing::Values(true, false),
                         [](const auto& kind) { return kind.param ? "Simulated" : "Native"; });

TEST(SimulatedMountedVolumes, AreListedInTheOrderOfAddingAndTheQueryIsRecorded) {
  const auto machine = simulatedMachine();
  const std::vector<MountedVolume> volumes = machine->platform().mountedVolumes->volumes();
  EXPECT_THAT(sourcesOf(volumes), ElementsAre("/dev/disk0s2", "/dev/disk1s1", "/dev/disk1s2", "ntfs://disk4s1/Data"));
  EXPECT_EQ(volumes[0].totalSize, 500U);
  EXPECT_EQ(volumes[0].freeSpace, 200U);
  EXPECT_FALSE(volumes[1].totalSize);
  EXPECT_FALSE(volumes[1].freeSpace);
  EXPECT_FALSE(volumes[2].mountPath);
  EXPECT_EQ(volumes[3].name, "Data");
  EXPECT_THAT(machine->journal(), ElementsAre("list mounted volumes"));
}

TEST(SimulatedMountedVolumes, ANewVolumeIsAddedAtTheEnd) {
  SimulatedMachine machine;
  const Platform ports = machine.platform();
  EXPECT_TRUE(ports.mountedVolumes->volumes().empty());
  machine.addMountedVolume({"First", "/first", "/dev/disk9s1", 1, 1});
  machine.addMountedVolume({"Second", "/second", "/dev/disk1s1", 1, 1});
  EXPECT_THAT(sourcesOf(ports.mountedVolumes->volumes()), ElementsAre("/dev/disk9s1", "/dev/disk1s1"));
}

}  // namespace
}  // namespace vorlix::contract
