// SPDX-License-Identifier: Apache-2.0
//
// The stand-in of disk arbitration, and the adapter over it.
#include <DiskArbitration/DiskArbitration.h>

#include "platform/macos/CFOwned.h"
#include "platform/macos/DeviceNames.h"
#include "tests/contract/Volumes.h"
#include "tests/macos/standin/System.h"

namespace vorlix::contract {
namespace {

constexpr std::chrono::milliseconds kInVain{50};
constexpr std::chrono::seconds kAtMost{20};

class Arbitration : public testing::Test {
 protected:
  Arbitration() {
    machine_.addDisk("disk0", 1 << 20, 512);
    machine_.addSlice("disk0", 1, 40, 100);
    machine_.setVolume("disk0s1", {"msdos", "EFI", std::nullopt, "/Volumes/EFI"});
    standin::show(machine_);
  }
  ~Arbitration() override { standin::showUsual(); }

  DiskCompletion note(const std::string& name) {
    return [this, name](const std::optional<Dissenter>& dissenter) {
      told_.push_back(name + " " + std::to_string(statusOf(dissenter)));
    };
  }

  SimulatedMachine machine_;
  Platform ports_ = nativePlatform();
  std::shared_ptr<RunLoop> loop_ = ports_.runLoops->current();
  std::vector<std::string> told_;
};

// ------------------------------------------------------------------------------ the stand-in is as the framework is

TEST_F(Arbitration, ADiskIsMadeOfAnyNameAndOnlyItsDescriptionTells) {
  const CFOwned<DASessionRef> session(DASessionCreate(nullptr));
  const CFOwned<DADiskRef> disk(DADiskCreateFromBSDName(nullptr, session.get(), "no-such-disk"));
  ASSERT_TRUE(disk);
  EXPECT_STREQ(DADiskGetBSDName(disk.get()), "no-such-disk");
  EXPECT_FALSE(CFOwned<CFDictionaryRef>(DADiskCopyDescription(disk.get())));
}

TEST_F(Arbitration, ADiskHoldsItsSession) {
  CFOwned<DASessionRef> session(DASessionCreate(nullptr));
  const CFOwned<DADiskRef> disk(DADiskCreateFromBSDName(nullptr, session.get(), "disk0"));
  session.reset();
  EXPECT_EQ(standin::live()["DASession"], 1);
  EXPECT_TRUE(CFOwned<CFDictionaryRef>(DADiskCopyDescription(disk.get())));
}

TEST_F(Arbitration, ASessionThatStaysScheduledIsNeverGone) {
  DASessionRef session = DASessionCreate(nullptr);
  DASessionScheduleWithRunLoop(session, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  CFRelease(session);
  EXPECT_EQ(standin::live()["DASession"], 1);
  DASessionUnscheduleFromRunLoop(session, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  EXPECT_EQ(standin::live()["DASession"], 0);
}

TEST_F(Arbitration, AnObjectThatIsReleasedTwiceEndsTheProgram) {
  EXPECT_DEATH(
      {
        DASessionRef session = DASessionCreate(nullptr);
        CFRelease(session);
        CFRelease(session);
      },
      "");
}

TEST_F(Arbitration, AnObjectThatIsUsedAfterItsReleaseEndsTheProgram) {
  EXPECT_DEATH(
      {
        const CFOwned<DASessionRef> session(DASessionCreate(nullptr));
        DADiskRef disk = DADiskCreateFromBSDName(nullptr, session.get(), "disk0");
        CFRelease(disk);
        DADiskGetBSDName(disk);
      },
      "");
}

// ----------------------------------------------------------------------------------------------------- the adapter

TEST_F(Arbitration, AnAnswerThatComesAtOnceIsToldOnTheLoop) {
  const auto session = ports_.diskArbitration->createSession();
  session->schedule(*loop_, kDefaultRunLoopMode);
  const auto disk = session->diskFromBSDName("disk0s1");
  standin::system().requestRefusal = kDissentNotPrivileged;
  disk->mount({}, note("mount"));
  disk->unmount(note("unmount"));
  EXPECT_TRUE(told_.empty());
  EXPECT_EQ(loop_->run("another mode", kInVain), RunLoopResult::noSources);
  EXPECT_TRUE(told_.empty());
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kAtMost), RunLoopResult::handledSource);
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kAtMost), RunLoopResult::handledSource);
  const std::string status = std::to_string(kDissentNotPrivileged);
  EXPECT_EQ(told_, (std::vector<std::string>{"mount " + status, "unmount " + status}));
}

TEST_F(Arbitration, ARefusedRequestWithoutACompletionIsNothing) {
  const auto session = ports_.diskArbitration->createSession();
  standin::system().requestRefusal = kDissentNotPrivileged;
  session->diskFromBSDName("disk0s1")->mount({}, nullptr);
  session->diskFromBSDName("disk0s1")->unmount(nullptr);
  EXPECT_FALSE(machine_.isMounted("disk0s1"));
}

TEST_F(Arbitration, ARefusalAtOnceAfterTheSessionsEndIsToldToNobody) {
  auto session = ports_.diskArbitration->createSession();
  session->schedule(*loop_, kDefaultRunLoopMode);
  const auto disk = session->diskFromBSDName("disk0s1");
  session.reset();
  standin::system().requestRefusal = kDissentNotPrivileged;
  disk->mount({}, note("mount"));
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kInVain), RunLoopResult::noSources);
  EXPECT_TRUE(told_.empty());
}

TEST_F(Arbitration, WhatIsDoneBeforeTheLoopRunsIsToldOnTheLoop) {
  standin::system().arbitrationIsQuick = true;
  const auto session = ports_.diskArbitration->createSession();
  session->schedule(*loop_, kDefaultRunLoopMode);
  session->diskFromBSDName("disk0s1")->mount({"nobrowse", "rw"}, note("mount"));
  EXPECT_TRUE(machine_.isMounted("disk0s1"));
  EXPECT_TRUE(told_.empty());
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kAtMost), RunLoopResult::handledSource);
  EXPECT_EQ(told_, std::vector<std::string>{"mount 0"});
}

TEST_F(Arbitration, ARefusalComesWithItsText) {
  machine_.refuseMount("disk0s1", kDissentNotPermitted, "not today");
  const auto refusal = mountNow(ports_, "disk0s1");
  EXPECT_EQ(statusOf(refusal), kDissentNotPermitted);
  EXPECT_EQ(textOf(refusal), "not today");
}

TEST_F(Arbitration, NoSessionWhereTheServiceCannotBeReached) {
  machine_.refuseSessions();
  EXPECT_FALSE(ports_.diskArbitration->createSession());
}

TEST_F(Arbitration, ACompletionMayEndItsSession) {
  auto session = ports_.diskArbitration->createSession();
  session->schedule(*loop_, kDefaultRunLoopMode);
  auto disk = session->diskFromBSDName("disk0s1");
  disk->mount({}, [&](const std::optional<Dissenter>&) {
    disk.reset();
    session.reset();
    told_.emplace_back("ended");
  });
  EXPECT_EQ(loop_->run(kDefaultRunLoopMode, kAtMost), RunLoopResult::handledSource);
  EXPECT_EQ(told_, std::vector<std::string>{"ended"});
}

TEST_F(Arbitration, AModeWithoutUTF8IsNoMode) {
  const auto session = ports_.diskArbitration->createSession();
  session->schedule(*loop_, "\xFF");
  session->unschedule(*loop_, "\xFF");
  EXPECT_EQ(loop_->run("\xFF", kAtMost), RunLoopResult::noSources);
}

TEST_F(Arbitration, WhatIsDescribedOfADisk) {
  machine_.setDescription("disk0s1", kDescriptionMediaUUID, *UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF"));
  machine_.setDescription("disk0s1", kDescriptionDeviceGUID, Data{1, 2, 3});
  machine_.setDescription("disk0s1", kDescriptionDeviceInternal, true);
  ASSERT_TRUE(granted(mountNow(ports_, "disk0s1")));
  const auto description = describe(ports_, "disk0s1");
  ASSERT_TRUE(description);
  EXPECT_EQ(description->value(kDescriptionMediaUUID), Value(*UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF")));
  EXPECT_EQ(description->value(kDescriptionDeviceGUID), Value(Data{1, 2, 3}));
  EXPECT_EQ(description->boolean(kDescriptionDeviceInternal), true);
  EXPECT_EQ(description->url(kDescriptionVolumePath)->path(), "/Volumes/EFI");
  EXPECT_TRUE(description->url(kDescriptionVolumePath)->hasDirectoryPath());
}

TEST_F(Arbitration, ADiskWithoutADescriptionIsNone) {
  machine_.hideDescription("disk0");
  EXPECT_FALSE(ports_.diskArbitration->createSession()->diskFromBSDName("disk0"));
}

TEST_F(Arbitration, ADiskWithoutAWholeDiskHasNone) {
  machine_.hideWholeDisk("disk0s1");
  EXPECT_FALSE(ports_.diskArbitration->createSession()->diskFromBSDName("disk0s1")->wholeDisk());
}

// ------------------------------------------------------------------------------------------------------------ names

// User-space drivers mount volumes from names of their own, which DADiskCreateFromBSDName() parses.
TEST_F(Arbitration, AVolumeOfADriverOfItsOwnIsFoundByTheNameItIsMountedFrom) {
  const auto session = ports_.diskArbitration->createSession();
  for (const char* name :
       {"msdos://disk0s1/NO NAME", "exfat://disk0s1/CARD", "ntfs://disk0s1", "/dev/msdos://disk0s1/A"}) {
    const auto disk = session->diskFromBSDName(name);
    ASSERT_TRUE(disk) << name;
    EXPECT_EQ(disk->bsdName(), "disk0s1") << name;
  }
}

TEST_F(Arbitration, OtherNamesWithASlashAreNoDisks) {
  const auto session = ports_.diskArbitration->createSession();
  for (const char* name : {"msdos://disk9s1/NAME", "smb://server/disk0s1", "//me@server/share", "a/disk0s1",
                           "://disk0s1", "map auto_home", "msdos://disk/x", "msdos:///disk0s1"}) {
    EXPECT_FALSE(session->diskFromBSDName(name)) << name;
  }
}

TEST(ArbitrationNames, AreBare) {
  EXPECT_EQ(arbitrationName("disk0s3"), "disk0s3");
  EXPECT_EQ(arbitrationName("/dev/rdisk0s3"), "disk0s3");
  EXPECT_EQ(arbitrationName("/dev//dev/disk0"), "disk0");
  EXPECT_EQ(arbitrationName("msdos://disk4s1/NAME"), "disk4s1");
  EXPECT_EQ(arbitrationName("exfat://disk5s1/CARD/x"), "disk5s1");
  EXPECT_FALSE(arbitrationName("/Volumes/disk0"));
  EXPECT_FALSE(arbitrationName(""));
}

}  // namespace
}  // namespace vorlix::contract
