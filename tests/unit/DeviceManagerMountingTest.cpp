// SPDX-License-Identifier: Apache-2.0
//
// The device manager's mounts and unmounts, which wait on the calling thread's run loop.
#include <Vorlix/platform/RunLoop.h>

#include <limits>
#include <thread>

#include "tests/unit/support/DeviceManagerFixture.h"
#include "tests/unit/support/LostSession.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kMountRun = "run MountCallbackMode 20000";
constexpr const char* kMountUnschedule = "unschedule MountCallbackMode";
constexpr const char* kUnmountRun = "run MyCallbackMode 20000";
constexpr const char* kUnmountUnschedule = "unschedule MyCallbackMode";

class DeviceManagerMountingTest : public DeviceManagerTest {
 protected:
  DeviceManagerMountingTest() {
    addDevice("disk2s1");
    addDevice("disk2s3");
    addVolume("disk2s1", "/Volumes/EFI");
  }

  void mounted(const std::string& device) { addVolume(device, "/Volumes/EFI", true); }

  const std::shared_ptr<QDDeviceManager> other = QDDeviceManager::init();
};

// ----------------------------------------------------------------------------------------------- mount without waiting

TEST_F(DeviceManagerMountingTest, MountWithoutWaitingOnlySendsTheRequest) {
  for (const char* device : {"disk2s1", "/dev/disk2s1"}) {
    addVolume("disk2s1", "/Volumes/EFI");
    machine.clearJournal();
    manager->mountDiskAtDevicePath(device);
    EXPECT_THAT(machine.journal(), ElementsAre("session open", "mount disk2s1", "session close"));
    EXPECT_TRUE(machine.isMounted("disk2s1"));
  }
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerMountingTest, MountWithoutWaitingReportsNoOutcome) {
  manager->setMountStatus(5);
  manager->mountDiskAtDevicePath("disk2s1");
  machine.refuseMount("disk2s3", kDissentBusy);
  manager->mountDiskAtDevicePath("disk2s3");
  EXPECT_EQ(manager->mountStatus(), 5);
  EXPECT_FALSE(manager->didMount());
}

TEST_F(DeviceManagerMountingTest, MountWithoutWaitingOfAnUnknownDeviceRequestsNothing) {
  manager->mountDiskAtDevicePath("disk9s1");
  manager->mountDiskAtDevicePath("");
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close", "session open", "session close"));
}

TEST_F(DeviceManagerMountingTest, MountWithoutWaitingNeedsASession) {
  machine.refuseSessions();
  manager->mountDiskAtDevicePath("disk2s1");
  EXPECT_FALSE(machine.isMounted("disk2s1"));
  EXPECT_EQ(machine.journal(), Lines());
}

// ------------------------------------------------------------------------------------------------------ mount and wait

TEST_F(DeviceManagerMountingTest, ReadOnlyMountPassesNoArguments) {
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "mount disk2s1", kSchedule, kMountRun, kRun,
                                             kMountUnschedule, "session close"));
  EXPECT_THAT(lines(), ElementsAre("Mounting disk2s1", "More than 1 partition found!", "Mounting disk2s1 Finished"));
  EXPECT_EQ(manager->mountStatus(), 0);
  EXPECT_TRUE(manager->didMount());
}

TEST_F(DeviceManagerMountingTest, ReadWriteMountIsHiddenAndLogged) {
  EXPECT_TRUE(manager->mountDiskAtDevicePath("/dev/disk2s1", true));
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "mount disk2s1 nobrowse rw", kSchedule, kMountRun, kRun,
                                             kMountUnschedule, "session close"));
  EXPECT_THAT(lines(), ElementsAre("Mounting /dev/disk2s1", "More than 1 partition found!",
                                   "Attempting to mount read/write", "Mounting /dev/disk2s1 Finished"));
}

TEST_F(DeviceManagerMountingTest, MountLeavesTheUnmountsOutcomeUnchanged) {
  manager->setUnmountStatus(1);
  manager->setDidUnmount(true);
  manager->mountDiskAtDevicePath("disk2s1", true);
  EXPECT_EQ(manager->unmountStatus(), 1);
  EXPECT_TRUE(manager->didUnmount());
}

TEST_F(DeviceManagerMountingTest, MountIsPendingUntilItCompletes) {
  std::vector<int32_t> statuses;
  delegate->onLine = [&](const std::string&) { statuses.push_back(manager->mountStatus()); };
  manager->setMountStatus(1);
  manager->mountDiskAtDevicePath("disk2s1", true);
  ASSERT_EQ(statuses.size(), 4U);
  EXPECT_EQ(statuses[0], 1);  // "Mounting"
  EXPECT_EQ(statuses[1], 1);  // "More than 1 partition found!"
  EXPECT_EQ(statuses[2], -1);
  EXPECT_EQ(statuses[3], 0);
}

TEST_F(DeviceManagerMountingTest, MountWaitsForTheOutcome) {
  machine.delayCompletions(300);  // half a minute: there is no time-out
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_EQ(countOf(kMountRun), 1);
  EXPECT_EQ(countOf(kRun), 301);
}

TEST_F(DeviceManagerMountingTest, RefusedMountReturnsFalseWhateverTheDissentersStatus) {
  for (const int32_t status : {kDissentBusy, kDissentNotMounted, 0, 16}) {
    machine.refuseMount("disk2s1", status, "no");
    manager->setMountStatus(0);
    EXPECT_FALSE(manager->mountDiskAtDevicePath("disk2s1", true)) << status;
    EXPECT_EQ(manager->mountStatus(), 1) << status;
    EXPECT_FALSE(manager->didMount()) << status;
  }
  EXPECT_EQ(lastLine(), "Mounting disk2s1 Finished");
  EXPECT_EQ(machine.journal().back(), "session close");
}

TEST_F(DeviceManagerMountingTest, AfterOneMountEveryLaterOneReturnsTrue) {
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", false));
  machine.refuseMount("disk2s3", kDissentUnsupported);
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s3", false));
  EXPECT_EQ(manager->mountStatus(), 1);
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk9s1", false));
  EXPECT_EQ(manager->mountStatus(), -1);
  EXPECT_TRUE(manager->didMount());
}

TEST_F(DeviceManagerMountingTest, MountOfAnUnknownDeviceRunsNoLoop) {
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk9s1", true));
  EXPECT_THAT(machine.journal(), ElementsAre("session open", kMountUnschedule, "session close"));
  EXPECT_THAT(lines(), ElementsAre("Mounting disk9s1", "More than 1 partition found!", "Mounting disk9s1 Finished"));
  EXPECT_EQ(manager->mountStatus(), -1);
}

TEST_F(DeviceManagerMountingTest, MountWithoutASessionReturnsAtOnce) {
  machine.refuseSessions();
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk2s1", true));
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_THAT(lines(), ElementsAre("Mounting disk2s1", "More than 1 partition found!", "Mounting disk2s1 Finished"));
  EXPECT_EQ(manager->mountStatus(), -1);
}

TEST_F(DeviceManagerMountingTest, EveryInstanceHasItsOwnOutcome) {
  EXPECT_TRUE(other->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_TRUE(other->didMount());
  EXPECT_FALSE(manager->didMount());
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk9s1", false));
}

TEST_F(DeviceManagerMountingTest, MountRunsTheLoopOfTheCallingThread) {
  bool result = false;
  std::thread([&] { result = manager->mountDiskAtDevicePath("disk2s1", false); }).join();
  EXPECT_TRUE(result);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
}

TEST_F(DeviceManagerMountingTest, ALongNameIsNotTruncated) {
  for (const size_t length : {1023U, 1024U}) {
    const std::string beginning(length, 'd');
    machine.addDisk(beginning, 1000 * 512, 512);
    addVolume(beginning, "/Volumes/Short");
    manager->mountDiskAtDevicePath(std::string(1500, 'd'), false);
    manager->mountDiskAtDevicePath(std::string(1500, 'd'));
    manager->unmountDiskAtDevice(std::string(1500, 'd'));
    EXPECT_FALSE(machine.isMounted(beginning));
  }
  EXPECT_EQ(mountsAndUnmounts(), Lines());
}

TEST_F(DeviceManagerMountingTest, RecordedMountIsASuccessIfTheLowByteIsOne) {
  const struct {
    int32_t flag;
    bool success;
  } cases[] = {{1, true},    {257, true}, {std::numeric_limits<int32_t>::min() + 1, true},
               {-255, true}, {0, false},  {2, false},
               {256, false}, {-1, false}, {255, false}};
  for (const auto& one : cases) {
    other->setDidMount(false);
    other->setMountStatus(-1);
    other->diskMountStatus(one.flag);
    EXPECT_EQ(other->mountStatus(), one.success ? 0 : 1) << one.flag;
    EXPECT_EQ(other->didMount(), one.success) << one.flag;
  }
}

TEST_F(DeviceManagerMountingTest, RecordedFailureOfAMountKeepsTheEarlierSuccess) {
  other->diskMountStatus(1);
  other->diskMountStatus(0);
  EXPECT_TRUE(other->didMount());
  EXPECT_EQ(other->mountStatus(), 1);
  EXPECT_EQ(other->unmountStatus(), 0);
}

// ------------------------------------------------------------------------------------------------------------- unmount

TEST_F(DeviceManagerMountingTest, UnmountOfAMountedVolumeReturnsTrue) {
  for (const char* device : {"disk2s1", "/dev/disk2s1"}) {
    mounted("disk2s1");
    machine.clearJournal();
    manager->setDidUnmount(false);
    EXPECT_TRUE(manager->unmountDiskAtDevice(device));
    EXPECT_FALSE(machine.isMounted("disk2s1"));
    EXPECT_THAT(machine.journal(), ElementsAre("session open", "unmount disk2s1", kSchedule, kUnmountRun, kRun,
                                               kUnmountUnschedule, "session close"));
    EXPECT_EQ(manager->unmountStatus(), 0);
  }
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(manager->mountStatus(), 0);
  EXPECT_FALSE(manager->didMount());
}

TEST_F(DeviceManagerMountingTest, UnmountOfAVolumeThatIsNotMountedReturnsTrue) {
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_TRUE(manager->didUnmount());
  EXPECT_EQ(manager->unmountStatus(), 0);
}

TEST_F(DeviceManagerMountingTest, OnlyTheNotMountedDissentIsASuccess) {
  mounted("disk2s1");
  for (const int32_t status : {kDissentBusy, kDissentNotFound, kDissentNotPrivileged, 0, 1, 7, 0x0007}) {
    machine.refuseUnmount("disk2s1", status, "no");
    manager->setDidUnmount(true);
    EXPECT_FALSE(manager->unmountDiskAtDevice("disk2s1")) << status;
    EXPECT_FALSE(manager->didUnmount()) << status;
    EXPECT_EQ(manager->unmountStatus(), 1) << status;
  }
  machine.refuseUnmount("disk2s1", static_cast<int32_t>(0xF8DA0007));
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_EQ(manager->unmountStatus(), 0);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
}

TEST_F(DeviceManagerMountingTest, UnmountWaitsForTheOutcome) {
  mounted("disk2s1");
  machine.delayCompletions(300);
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_EQ(countOf(kUnmountRun), 1);
  EXPECT_EQ(countOf(kRun), 301);
}

TEST_F(DeviceManagerMountingTest, UnmountOfAnUnknownDeviceReturnsTheLastOutcomeAtOnce) {
  EXPECT_FALSE(manager->unmountDiskAtDevice("disk9s1"));
  EXPECT_THAT(machine.journal(), ElementsAre("session open", kUnmountUnschedule, "session close"));
  EXPECT_EQ(manager->unmountStatus(), -1);
  mounted("disk2s1");
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk9s1"));
  EXPECT_TRUE(manager->unmountDiskAtDevice(""));
  EXPECT_EQ(manager->unmountStatus(), -1);
}

TEST_F(DeviceManagerMountingTest, UnmountWithoutASessionReturnsAtOnce) {
  mounted("disk2s1");
  machine.refuseSessions();
  EXPECT_FALSE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_EQ(manager->unmountStatus(), -1);
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_TRUE(machine.isMounted("disk2s1"));
}

TEST_F(DeviceManagerMountingTest, RecordedUnmountUsesTheLowByte) {
  const struct {
    int32_t flag;
    bool didUnmount;
    int32_t status;
  } cases[] = {{1, true, 0},    {257, true, 0}, {-255, true, 0}, {0, false, 1},
               {256, false, 1}, {2, true, 1},   {-1, true, 1}};
  for (const auto& one : cases) {
    other->setDidUnmount(!one.didUnmount);
    other->setUnmountStatus(-1);
    other->diskUnmountStatus(one.flag);
    EXPECT_EQ(other->didUnmount(), one.didUnmount) << one.flag;
    EXPECT_EQ(other->unmountStatus(), one.status) << one.flag;
  }
  EXPECT_EQ(other->mountStatus(), 0);
}

TEST_F(DeviceManagerMountingTest, LoopWithoutSourcesIsNotRunForever) {
  const auto loop = std::make_shared<EmptyLoop>();
  const ScopedPlatform scope(withLostSession(machine.platform(), loop));
  EXPECT_NO_THROW(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_EQ(manager->mountStatus(), -1);
  EXPECT_GT(loop->runs, 0);
  loop->runs = 0;
  EXPECT_NO_THROW(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_EQ(manager->unmountStatus(), -1);
  EXPECT_GT(loop->runs, 0);
}

TEST_F(DeviceManagerMountingTest, MountAndUnmountCanAlternate) {
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", true));
    EXPECT_TRUE(machine.isMounted("disk2s1"));
    EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
    EXPECT_FALSE(machine.isMounted("disk2s1"));
  }
  EXPECT_EQ(countOf("session open"), 6);
  EXPECT_EQ(countOf("session close"), 6);
}

}  // namespace
}  // namespace vorlix::test
