// SPDX-License-Identifier: Apache-2.0
//
// Mounting, unmounting and mount points, which use the calling thread's run loop, and small helpers for text and files.
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/LostSession.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kUnschedule = "unschedule kCFRunLoopDefaultMode";

class MountingTest : public DiskTest {
 protected:
  MountingTest() {
    machine.addDisk("disk2", 1000 * 512, 512);
    machine.addSlice("disk2", 1, 40, 100);
    machine.addSlice("disk2", 3, 200, 100);
    addVolume("disk2s1", "/Volumes/EFI");
  }

  /// The journal without the lines for descriptions.
  Lines calls() const {
    Lines lines = machine.journal();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) { return line.rfind("describe ", 0) == 0; }),
                lines.end());
    return lines;
  }

  ptrdiff_t runs() const {
    const Lines lines = machine.journal();
    return std::count(lines.begin(), lines.end(), kRun);
  }
};

std::string textOf(const char* text) {
  return text == nullptr ? "(null)" : text;
}

// -------------------------------------------------------------------------------------------------------- mount point

TEST_F(MountingTest, MountPointOfAMountedVolume) {
  addVolume("disk2s3", "/Volumes/Windows", true);
  EXPECT_EQ(textOf(mounted_path("disk2s3")), "/Volumes/Windows");
  EXPECT_THAT(calls(), ElementsAre("session open", "session close"));
  EXPECT_EQ(textOf(mounted_path("/dev/disk2s3")), "/Volumes/Windows");
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, NoMountPointWithoutAName) {
  EXPECT_EQ(mounted_path(nullptr), nullptr);
  EXPECT_THAT(machine.journal(), IsEmpty());
}

TEST_F(MountingTest, NoMountPointOfUnknownUnmountedOrUndescribedDisks) {
  EXPECT_EQ(mounted_path("disk9"), nullptr);
  EXPECT_EQ(mounted_path(""), nullptr);
  EXPECT_EQ(mounted_path("disk2s1"), nullptr);
  EXPECT_EQ(mounted_path("disk2"), nullptr);
  addVolume("disk2s3", "/Volumes/Windows", true);
  machine.hideDescription("disk2s3");
  EXPECT_EQ(mounted_path("disk2s3"), nullptr);
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, NoMountPointWithoutASession) {
  addVolume("disk2s3", "/Volumes/Windows", true);
  machine.refuseSessions();
  EXPECT_EQ(mounted_path("disk2s3"), nullptr);
}

TEST_F(MountingTest, MountPointStaysValidWhenAnotherThreadAsks) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  addVolume("disk2s3", "/Volumes/Windows", true);
  const char* path = mounted_path("disk2s1");
  std::thread([] { EXPECT_EQ(textOf(mounted_path("disk2s3")), "/Volumes/Windows"); }).join();
  EXPECT_EQ(textOf(path), "/Volumes/EFI");
}

// ------------------------------------------------------------------------------------------------------------ mounting

TEST_F(MountingTest, MountWithoutFlagPassesNoArguments) {
  EXPECT_EQ(mount_disk("disk2s1", 0), 0);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "mount disk2s1", kRun, kUnschedule, "session close"));
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, MountWithFlagIsHiddenAndReadWrite) {
  for (const int32_t flag : {1, 2, -1, std::numeric_limits<int32_t>::min()}) {
    addVolume("disk2s1", "/Volumes/EFI");
    machine.clearJournal();
    EXPECT_EQ(mount_disk("/dev/disk2s1", flag), 0);
    EXPECT_TRUE(machine.isMounted("disk2s1"));
    EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "mount disk2s1 nobrowse rw", kRun, kUnschedule,
                                     "session close"));
  }
}

TEST_F(MountingTest, LoopRunsUntilTheMountCompletes) {
  machine.delayCompletions(5);
  EXPECT_EQ(mount_disk("disk2s1", 0), 0);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_EQ(runs(), 6);
  EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "mount disk2s1", kRun, kRun, kRun, kRun, kRun, kRun,
                                   kUnschedule, "session close"));
}

TEST_F(MountingTest, EveryMountWaitsForItsOwnCompletion) {
  EXPECT_EQ(mount_disk("disk2s1", 0), 0);
  addVolume("disk2s3", "/Volumes/Windows");
  machine.delayCompletions(3);
  machine.clearJournal();
  EXPECT_EQ(mount_disk("disk2s3", 1), 0);
  EXPECT_EQ(runs(), 4);
  EXPECT_TRUE(machine.isMounted("disk2s3"));
}

TEST_F(MountingTest, RefusedMountIsNotReported) {
  for (const int32_t status : {kDissentBusy, 0, 16}) {
    machine.refuseMount("disk2s1", status, "no");
    machine.clearJournal();
    EXPECT_EQ(mount_disk("disk2s1", 1), 0) << status;
    EXPECT_FALSE(machine.isMounted("disk2s1"));
    EXPECT_EQ(runs(), 1);
    EXPECT_EQ(calls().back(), "session close");
  }
  EXPECT_EQ(mounted_path("disk2s1"), nullptr);
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, MountOfAnUnknownNameRunsNothing) {
  EXPECT_EQ(mount_disk("disk9s1", 0), 0);
  EXPECT_THAT(calls(), ElementsAre("session open", kUnschedule, "session close"));
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, MountWithoutASessionRunsNothing) {
  machine.refuseSessions();
  EXPECT_EQ(mount_disk("disk2s1", 0), 0);
  EXPECT_FALSE(machine.isMounted("disk2s1"));
  EXPECT_THAT(mountsAndUnmounts(), IsEmpty());
  EXPECT_EQ(runs(), 0);
}

TEST_F(MountingTest, LongNameIsNotTruncatedForMounting) {
  const std::string longName(1500, 'd');
  machine.addDisk(longName, 1000 * 512, 512);
  addVolume(longName, "/Volumes/Long");
  EXPECT_EQ(mount_disk(longName.c_str(), 0), 0);
  EXPECT_TRUE(machine.isMounted(longName));
}

TEST_F(MountingTest, NullMatchesNoDisk) {
  EXPECT_EQ(mount_disk(nullptr, 1), 0);
  EXPECT_EQ(mount_efi(nullptr), nullptr);
  EXPECT_EQ(unmount_disk(nullptr), -1);
  EXPECT_EQ(file_exist(nullptr), 0);
  EXPECT_THAT(mountsAndUnmounts(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------- the EFI partition

TEST_F(MountingTest, EFIPartitionIsSliceOneAndVisible) {
  EXPECT_EQ(textOf(mount_efi("disk2")), "/Volumes/EFI");
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk2s1"));
  EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "mount disk2s1", kRun, kUnschedule, "session close",
                                   "session open", "session close"));
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, EFIPartitionIsFoundByAPrefixedName) {
  EXPECT_EQ(textOf(mount_efi("/dev/disk2")), "/Volumes/EFI");
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk2s1"));
}

TEST_F(MountingTest, EFIPartitionThatIsAlreadyMountedHasAMountPoint) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  EXPECT_EQ(textOf(mount_efi("disk2")), "/Volumes/EFI");
  EXPECT_TRUE(machine.isMounted("disk2s1"));
}

TEST_F(MountingTest, EFIPartitionThatCannotBeMountedHasNoMountPoint) {
  EXPECT_EQ(mount_efi("disk9"), nullptr);
  machine.refuseMount("disk2s1", kDissentUnsupported);
  EXPECT_EQ(mount_efi("disk2"), nullptr);
  EXPECT_EQ(log(), "");
}

TEST_F(MountingTest, LongNameOfAnEFIPartitionIsNotTruncated) {
  const std::string longName(300, 'd');
  machine.addDisk(longName, 1000 * 512, 512);
  machine.addSlice(longName, 1, 40, 100);
  addVolume(longName + "s1", "/Volumes/Long");
  EXPECT_EQ(textOf(mount_efi(longName.c_str())), "/Volumes/Long");
}

TEST_F(MountingTest, EFIPartitionIsUnmountedAfterOneSecond) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  std::vector<std::chrono::milliseconds> pauses;
  machine.duringPauses([&](std::chrono::milliseconds time) {
    pauses.push_back(time);
    EXPECT_THAT(calls(), IsEmpty()) << "the pause must come first";
  });
  EXPECT_EQ(unmount_efi("/dev/disk2"), 0);
  EXPECT_THAT(pauses, ElementsAre(std::chrono::seconds(1)));
  EXPECT_FALSE(machine.isMounted("disk2s1"));
  EXPECT_EQ(log(), "Unmounting disk /dev/disk2s1\n");
  EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "unmount disk2s1", kRun, kUnschedule, "session close"));
}

TEST_F(MountingTest, FailedUnmountOfTheEFIPartitionIsNotReported) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  machine.refuseUnmount("disk2s1", kDissentBusy);
  EXPECT_EQ(unmount_efi("disk2"), 0);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_EQ(unmount_efi("disk9"), 0);
  EXPECT_EQ(log(), "Unmounting disk disk2s1\nUnmounting disk disk9s1\n");
}

// ---------------------------------------------------------------------------------------------------------- unmounting

TEST_F(MountingTest, UnmountOfAMountedVolumeReturnsZero) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  EXPECT_EQ(unmount_disk("disk2s1"), 0);
  EXPECT_FALSE(machine.isMounted("disk2s1"));
  EXPECT_THAT(calls(), ElementsAre("session open", kSchedule, "unmount disk2s1", kRun, kUnschedule, "session close"));
  EXPECT_EQ(log(), "Unmounting disk disk2s1\n");
}

TEST_F(MountingTest, LoopRunsUntilTheUnmountCompletes) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  machine.delayCompletions(4);
  EXPECT_EQ(unmount_disk("/dev/disk2s1"), 0);
  EXPECT_EQ(runs(), 5);
  EXPECT_EQ(log(), "Unmounting disk /dev/disk2s1\n");
}

TEST_F(MountingTest, DissentersSignDecidesTheResult) {
  const struct {
    int32_t status;
    int32_t result;
  } cases[] = {{1, -2},  {16, -2}, {std::numeric_limits<int32_t>::max(), -2}, {0, -3},
               {-1, -3}, {-2, -3}, {std::numeric_limits<int32_t>::min(), -3}, {kDissentBusy, -3}};
  addVolume("disk2s1", "/Volumes/EFI", true);
  for (const auto& one : cases) {
    machine.refuseUnmount("disk2s1", one.status, "no");
    machine.clearJournal();
    EXPECT_EQ(unmount_disk("disk2s1"), one.result) << one.status;
    EXPECT_TRUE(machine.isMounted("disk2s1"));
    EXPECT_EQ(runs(), 1);
    EXPECT_EQ(calls().back(), "session close");
  }
}

TEST_F(MountingTest, UnmountAfterARefusedOneStartsAfresh) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  addVolume("disk2s3", "/Volumes/Windows", true);
  machine.refuseUnmount("disk2s1", 16);
  EXPECT_EQ(unmount_disk("disk2s1"), -2);
  EXPECT_EQ(unmount_disk("disk2s3"), 0);
  EXPECT_EQ(unmount_disk("disk9"), -1);
}

TEST_F(MountingTest, UnmountOfAVolumeThatIsNotMountedIsRefused) {
  EXPECT_EQ(unmount_disk("disk2s1"), -3);
  addVolume("disk2s1", "/Volumes/EFI", true);
  EXPECT_EQ(unmount_disk("disk2s1"), 0);
  EXPECT_EQ(unmount_disk("disk2s1"), -3);
}

TEST_F(MountingTest, UnmountOfAnUnknownNameReturnsMinusOne) {
  EXPECT_EQ(unmount_disk("disk9s1"), -1);
  EXPECT_THAT(calls(), ElementsAre("session open", kUnschedule, "session close"));
  EXPECT_EQ(log(), "Unmounting disk disk9s1\n");
}

TEST_F(MountingTest, UnmountWithoutASessionReturnsMinusOne) {
  addVolume("disk2s1", "/Volumes/EFI", true);
  machine.refuseSessions();
  EXPECT_EQ(unmount_disk("disk2s1"), -1);
  EXPECT_TRUE(machine.isMounted("disk2s1"));
  EXPECT_EQ(runs(), 0);
  EXPECT_EQ(log(), "Unmounting disk disk2s1\n");
}

TEST_F(MountingTest, LongNamesAreNotTruncatedForUnmounting) {
  for (const size_t length : {1023U, 1024U, 1025U, 1500U}) {
    const std::string name(length, 'd');
    machine.addDisk(name, 1000 * 512, 512);
    addVolume(name, "/Volumes/Long", true);
    EXPECT_EQ(unmount_disk(name.c_str()), 0) << length;
    EXPECT_FALSE(machine.isMounted(name)) << length;
  }
}

// ---------------------------------------------------------------------------------------------- a loop without sources

TEST_F(MountingTest, LoopWithoutSourcesIsNotRunForever) {
  const auto loop = std::make_shared<EmptyLoop>();
  const ScopedPlatform scope(withLostSession(machine.platform(), loop));
  EXPECT_NO_THROW(EXPECT_EQ(mount_disk("disk2s1", 0), 0));
  loop->runs = 0;
  EXPECT_NO_THROW(EXPECT_EQ(unmount_disk("disk2s1"), -1));
}

// ------------------------------------------------------------------------------------------------------- small helpers

TEST(RemoveAllCharsTest, EveryOccurrenceIsRemovedAndTheOrderIsKept) {
  const struct {
    const char* before;
    char character;
    const char* after;
  } cases[] = {
      {"a-b-c", '-', "abc"}, {"-a--b-", '-', "ab"},        {"----", '-', ""},     {"", '-', ""}, {"abc", '-', "abc"},
      {"aAa", 'a', "A"},     {"x\xE9y\xE9", '\xE9', "xy"}, {"a b\n", '\n', "a b"}};
  for (const auto& one : cases) {
    std::string text = one.before;
    text.resize(16, '\0');
    text[15] = '!';
    remove_all_chars(text.data(), one.character);
    EXPECT_STREQ(text.c_str(), one.after) << one.before;
    EXPECT_EQ(text[15], '!') << one.before;
  }
}

using FileExistTest = DiskTest;

TEST_F(FileExistTest, FilesAndFoldersExist) {
  EXPECT_EQ(file_exist(makeFile("file", {1}).c_str()), 1);
  makeFolder("folder");
  EXPECT_EQ(file_exist((folder / "folder").c_str()), 1);
  std::filesystem::create_symlink(folder / "file", folder / "link");
  EXPECT_EQ(file_exist((folder / "link").c_str()), 1);
  EXPECT_EQ(log(), "");
}

TEST_F(FileExistTest, MissingItemsDoNotExist) {
  makeFile("file", {1});
  std::filesystem::create_symlink(folder / "none", folder / "dangling");
  for (const char* name : {"none", "none/none", "file/none", "dangling", "FILE"}) {
    EXPECT_EQ(file_exist((folder / name).c_str()), 0) << name;
  }
  EXPECT_EQ(file_exist(""), 0);
}

}  // namespace
}  // namespace vorlix::test
