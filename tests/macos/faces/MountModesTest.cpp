// SPDX-License-Identifier: Apache-2.0
//
// The device manager's waits in the run loops of Core Foundation, in real time: a mode in which nothing is scheduled
// ends at once, and the answer comes in the default mode.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>

#include <chrono>

#include "tests/macos/standin/System.h"
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;

class MountModes : public DeviceManagerTest {
 protected:
  MountModes() {
    addDevice("disk2s1");
    addVolume("disk2s1", "/Volumes/EFI");
    standin::system().isSimulation = false;
  }

  std::chrono::milliseconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
  }

 private:
  Clock::time_point start_ = Clock::now();
};

TEST_F(MountModes, AMountWaitsInTheDefaultModeOnly) {
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", true));
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_THAT(lines(), ElementsAre("Mounting disk2s1", "More than 1 partition found!", "Attempting to mount read/write",
                                   "Mounting disk2s1 Finished"));
  EXPECT_EQ(manager->mountStatus(), 0);
  EXPECT_LT(elapsed(), std::chrono::seconds(10)) << "the run in MountCallbackMode has a limit of 20 s";
  EXPECT_THAT(journalOf({"schedule", "unschedule"}),
              ElementsAre("schedule kCFRunLoopDefaultMode", "unschedule kCFRunLoopDefaultMode"));
}

TEST_F(MountModes, AMountThatTakesAWhileIsWaitedFor) {
  machine.delayCompletions(30);
  EXPECT_TRUE(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_EQ(manager->mountStatus(), 0);
  EXPECT_LT(elapsed(), std::chrono::seconds(10));
}

TEST_F(MountModes, ARefusedMountIsTold) {
  machine.refuseMount("disk2s1", kDissentNotPermitted, "not today");
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_EQ(manager->mountStatus(), 1);
  EXPECT_FALSE(machine.isMounted("disk2s1"));
}

TEST_F(MountModes, AnUnmountWaitsInTheDefaultModeOnly) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  EXPECT_TRUE(manager->unmountDiskAtDevice("disk2s1"));
  EXPECT_FALSE(machine.isMounted("disk2s1"));
  EXPECT_LT(elapsed(), std::chrono::seconds(10)) << "the run in MyCallbackMode has a limit of 20 s";
}

TEST_F(MountModes, ARequestThatCannotBeQueuedIsToldOnTheLoop) {
  standin::system().requestRefusal = kDissentNotPrivileged;
  EXPECT_FALSE(manager->mountDiskAtDevicePath("disk2s1", false));
  EXPECT_EQ(manager->mountStatus(), 1);
  EXPECT_LT(elapsed(), std::chrono::seconds(10));
}

TEST_F(MountModes, AModeWithASourceWaitsForItsWholeLimit) {
  const auto session = platform().diskArbitration->createSession();
  const auto loop = platform().runLoops->current();
  EXPECT_EQ(loop->run("MountCallbackMode", std::chrono::seconds(20)), RunLoopResult::noSources);
  session->schedule(*loop, "MountCallbackMode");
  EXPECT_EQ(loop->run("MountCallbackMode", std::chrono::milliseconds(200)), RunLoopResult::timedOut);
  EXPECT_GE(elapsed(), std::chrono::milliseconds(190));
  EXPECT_EQ(loop->run(kDefaultRunLoopMode, std::chrono::milliseconds(0)), RunLoopResult::noSources);
  session->unschedule(*loop, "MountCallbackMode");
  EXPECT_EQ(loop->run("MountCallbackMode", std::chrono::seconds(20)), RunLoopResult::noSources);
}

}  // namespace
}  // namespace vorlix::test
