// SPDX-License-Identifier: Apache-2.0
//
// update_bcd(): the copy of a template onto the EFI partition and the identifiers in it. The EFI partition's mount
// point is a folder of the test, so that the store is a real file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::Not;

enum class Identifier { partition, disk };
using Slots = std::vector<std::pair<size_t, Identifier>>;

constexpr Identifier P = Identifier::partition;
constexpr Identifier D = Identifier::disk;

struct Mode {
  int32_t mode;
  const char* message;
  Slots slots;
  size_t end;  // of the last slot
};

const Mode kStandard = {0,
                        "Modifying BCD for standard EFI boot.\n",
                        {{10492, P}, {10740, P}, {5828, D}, {7900, D}, {9372, D}, {10516, D}, {10764, D}},
                        10780};
const Mode kMDT = {1,
                   "Modifying BCD for MDT.\n",
                   {{8792, P}, {8816, D}, {10200, P}, {10224, D}, {14124, P}, {11908, D}, {11932, D}, {14148, D}},
                   14164};
const Mode kSCCM = {
    2, "Modifying BCD for SCCM.\n", {{8424, P}, {8448, D}, {9872, P}, {9896, D}, {11660, D}, {19284, D}}, 19300};

// The expected store: the template, extended with zeros if a slot lies beyond its end, with the slots filled in.
ByteVector expectedStore(ByteVector store, const Mode& mode, const ByteVector& partition = kPartitionBytes,
                         const ByteVector& disk = kDiskBytes) {
  if (store.size() < mode.end) store.resize(mode.end, 0);
  for (const auto& [offset, identifier] : mode.slots) {
    const ByteVector& bytes = identifier == P ? partition : disk;
    std::copy(bytes.begin(), bytes.end(), store.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  return store;
}

// The state during the pause before the unmount.
struct AtPause {
  std::chrono::milliseconds time{0};
  ByteVector store;
  int descriptors = 0;
  bool mounted = false;
};

class BootConfigurationTest : public DiskTest {
 protected:
  BootConfigurationTest() : mountPoint(folder / "EFI partition"), store(mountPoint + "/EFI/Microsoft/Boot/BCD") {
    machine.addDisk("disk0", 1000 * 512, 512);
    machine.addSlice("disk0", 1, 40, 100);
    machine.addSlice("disk0", 3, 200, 100);
    addVolume("disk0s1", mountPoint);
    makeFolder("EFI partition/EFI/Microsoft/Boot");
    makeFile("EFI partition/EFI/Microsoft/Boot/bootmgfw.efi", {'o', 't', 'h', 'e', 'r'});
    source = makeFile("template", templateBytes);
    machine.duringPauses([this](std::chrono::milliseconds time) {
      atPause = {time, bytesOf(store), openDescriptors(), machine.isMounted("disk0s1")};
    });
  }

  /// Adds both identifiers to the registry.
  void addIdentifiers() {
    const auto disk = addService("disk", dictionaryOf({{"UUID", textValue(kDiskText)}}));
    addService("partition",
               dictionaryOf({{"BSD Name", textValue("disk0s3")},
                             {"UUID", textValue(kPartitionText)},
                             {"Base", Value(int64_t{200 * 512})}}),
               disk);
  }

  int32_t update(int32_t mode = 0) { return update_bcd(source.c_str(), "disk0", "disk0s3", mode); }

  void expectLinkRefused() {
    OutputCapture output(STDOUT_FILENO);
    OutputCapture errors(STDERR_FILENO);
    const int32_t result = update();
    EXPECT_EQ(errors.text(), std::string("BCD Path Destination error:: ") + std::strerror(ELOOP) + "\n");
    EXPECT_EQ(output.text(), std::strerror(ELOOP));
    EXPECT_EQ(result, -1);
  }

  std::string logUpToCopy() const { return "Mounting EFI partition on disk0\nmount point is " + mountPoint + "\n"; }
  std::string logOfCopy() const { return "Copying BCD to " + store + "\nCopying BCD done.\n"; }
  static std::string logOfIdentifiers() {
    return "partition UUID is 00112233445566778899AABBCCDDEEFF\ndisk UUID is C12A7328F81F11D2BA4B00A0C93EC93B\n";
  }
  static std::string logOfEnd() { return "unmounting EFI partition\nUnmounting disk disk0s1\nCompleted EFI update.\n"; }

  const std::string mountPoint;
  const std::string store;
  const ByteVector templateBytes = patternBytes(24576);
  std::string source;
  AtPause atPause;
};

// ------------------------------------------------------------------------------------------------------------- success

TEST_F(BootConfigurationTest, EveryModeFillsItsSlotsAndNothingElse) {
  addIdentifiers();
  for (const Mode& mode : {kStandard, kMDT, kSCCM}) {
    forgetLog();
    machine.clearJournal();
    const int before = openDescriptors();
    EXPECT_EQ(update(mode.mode), 0);
    EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, mode)) << mode.mode;
    EXPECT_EQ(log(), logUpToCopy() + logOfCopy() + logOfIdentifiers() + mode.message + logOfEnd());
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk0s1", "unmount disk0s1"));
    EXPECT_FALSE(machine.isMounted("disk0s1"));
    EXPECT_THAT(deviceLines(), IsEmpty());
  }
  EXPECT_EQ(bytesOf(source), templateBytes);
  EXPECT_EQ(contentOf(mountPoint + "/EFI/Microsoft/Boot/bootmgfw.efi"), "other");
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(BootConfigurationTest, AnyOtherModeMeansStandard) {
  addIdentifiers();
  for (const int32_t mode : {3, -1}) {
    forgetLog();
    EXPECT_EQ(update(mode), 0);
    EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard)) << mode;
    EXPECT_EQ(log(), logUpToCopy() + logOfCopy() + logOfIdentifiers() + kStandard.message + logOfEnd());
  }
}

TEST_F(BootConfigurationTest, StandardModeKeepsTheBytesBetweenTheSlotsOfAPair) {
  addIdentifiers();
  EXPECT_EQ(update(0), 0);
  const ByteVector bytes = bytesOf(store);
  ASSERT_EQ(bytes.size(), templateBytes.size());
  for (const size_t offset : {10508U, 10756U}) {
    EXPECT_EQ(slice(bytes, offset, 8), slice(templateBytes, offset, 8)) << offset;
  }
  for (const size_t offset : {10492U, 10740U}) EXPECT_EQ(slice(bytes, offset, 16), kPartitionBytes) << offset;
  for (const size_t offset : {5828U, 7900U, 9372U, 10516U, 10764U}) {
    EXPECT_EQ(slice(bytes, offset, 16), kDiskBytes) << offset;
  }
}

TEST_F(BootConfigurationTest, PrefixedDiskNameWorksAsWell) {
  addIdentifiers();
  EXPECT_EQ(update_bcd(source.c_str(), "/dev/disk0", "disk0s3", 0), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard));
  EXPECT_EQ(log(), "Mounting EFI partition on /dev/disk0\nmount point is " + mountPoint + "\n" + logOfCopy() +
                       logOfIdentifiers() + kStandard.message +
                       "unmounting EFI partition\nUnmounting disk /dev/disk0s1\nCompleted EFI update.\n");
}

TEST_F(BootConfigurationTest, TemplateShorterThanTheSlotsIsExtended) {
  addIdentifiers();
  for (const Mode& mode : {kStandard, kMDT, kSCCM}) {
    const ByteVector shorter = patternBytes(mode.end - 500);
    source = makeFile("template", shorter);
    EXPECT_EQ(update(mode.mode), 0);
    EXPECT_EQ(bytesOf(store), expectedStore(shorter, mode)) << mode.mode;
  }
}

TEST_F(BootConfigurationTest, EmptyTemplateLeavesZerosAroundTheSlots) {
  addIdentifiers();
  source = makeFile("template", {});
  EXPECT_EQ(update(2), 0);
  EXPECT_EQ(bytesOf(store), expectedStore({}, kSCCM));
}

TEST_F(BootConfigurationTest, ExistingStoreIsReplaced) {
  addIdentifiers();
  makeFile("EFI partition/EFI/Microsoft/Boot/BCD", patternBytes(60000, 9));
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard));
}

// The firmware ignores case, so a second store beside the existing one would have no effect.
TEST_F(BootConfigurationTest, StoreInAnotherSpellingIsReplacedAndNotDuplicated) {
  addIdentifiers();
  for (const std::string spelled : {"EFI/MICROSOFT/BOOT/BCD", "EFI/Microsoft/Boot/bcd", "efi/microsoft/Boot/Bcd"}) {
    std::filesystem::remove_all(mountPoint + "/EFI");
    std::filesystem::remove_all(mountPoint + "/efi");
    std::filesystem::create_directories(std::filesystem::path(mountPoint + "/" + spelled).parent_path());
    makeFile("EFI partition/" + spelled, {'o', 'l', 'd'});
    if (std::filesystem::exists(store)) GTEST_SKIP() << "this file system ignores case";
    forgetLog();
    EXPECT_EQ(update(0), 0);
    EXPECT_EQ(bytesOf(mountPoint + "/" + spelled), expectedStore(templateBytes, kStandard));
    EXPECT_FALSE(std::filesystem::exists(store));
    const std::filesystem::directory_iterator items(std::filesystem::path(mountPoint + "/" + spelled).parent_path());
    EXPECT_EQ(std::distance(items, {}), 1);
    EXPECT_EQ(log(), logUpToCopy() + "Copying BCD to " + mountPoint + "/" + spelled + "\nCopying BCD done.\n" +
                         logOfIdentifiers() + kStandard.message + logOfEnd());
  }
}

TEST_F(BootConfigurationTest, NewStoreGoesIntoTheExistingFolders) {
  addIdentifiers();
  std::filesystem::remove_all(mountPoint + "/EFI");
  makeFolder("EFI partition/EFI/MICROSOFT/BOOT");
  if (std::filesystem::exists(mountPoint + "/EFI/Microsoft")) GTEST_SKIP() << "this file system ignores case";
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(mountPoint + "/EFI/MICROSOFT/BOOT/BCD"), expectedStore(templateBytes, kStandard));
}

TEST_F(BootConfigurationTest, CaseSensitiveVolumesGetTheUsualName) {
  addIdentifiers();
  SimulatedVolume other;
  other.kind = "ext4";
  other.mountPath = mountPoint;
  machine.setVolume("disk0s1", other);
  makeFile("EFI partition/EFI/Microsoft/Boot/bcd", {'o', 'l', 'd'});
  if (std::filesystem::exists(store)) GTEST_SKIP() << "this file system ignores case";
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard));
  EXPECT_EQ(contentOf(mountPoint + "/EFI/Microsoft/Boot/bcd"), "old");
}

TEST_F(BootConfigurationTest, PipeAsTheStoreIsRefusedAtOnce) {
  addIdentifiers();
  ASSERT_EQ(mkfifo(store.c_str(), 0600), 0);
  EXPECT_EQ(update(0), -1);  // a writer would otherwise wait for a reader
  const int reader = open(store.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(update(0), -1);
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(BootConfigurationTest, EFIPartitionThatIsAlreadyMountedIsUsedAndUnmounted) {
  addIdentifiers();
  addVolume("disk0s1", mountPoint, true);
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard));
  EXPECT_FALSE(machine.isMounted("disk0s1"));
}

TEST_F(BootConfigurationTest, StoreIsClosedOneSecondBeforeTheUnmount) {
  addIdentifiers();
  const int before = openDescriptors();
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(atPause.time, std::chrono::seconds(1));
  EXPECT_EQ(atPause.store, expectedStore(templateBytes, kStandard));
  EXPECT_EQ(atPause.descriptors, before);
  EXPECT_TRUE(atPause.mounted);
  EXPECT_FALSE(machine.isMounted("disk0s1"));
}

TEST_F(BootConfigurationTest, RefusedUnmountIsNotReported) {
  addIdentifiers();
  machine.refuseUnmount("disk0s1", kDissentBusy);
  EXPECT_EQ(update(0), 0);
  EXPECT_TRUE(machine.isMounted("disk0s1"));
  EXPECT_EQ(log(), logUpToCopy() + logOfCopy() + logOfIdentifiers() + kStandard.message + logOfEnd());
}

TEST_F(BootConfigurationTest, CompletionsMayArriveLate) {
  addIdentifiers();
  machine.delayCompletions(3);
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kStandard));
  EXPECT_FALSE(machine.isMounted("disk0s1"));
}

TEST_F(BootConfigurationTest, FailsIfTheStoreCannotHoldTheBytes) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full on this system";
  addIdentifiers();
  std::filesystem::create_symlink("/dev/full", store);
  const int before = openDescriptors();
  EXPECT_EQ(update(0), -1);
  EXPECT_EQ(log().substr(0, logUpToCopy().size()), logUpToCopy());
  EXPECT_THAT(log(), Not(HasSubstr("Completed EFI update")));
  EXPECT_TRUE(machine.isMounted("disk0s1"));
  EXPECT_EQ(openDescriptors(), before);
}

// --------------------------------------------------------------------------------- identifiers from other sources

TEST_F(BootConfigurationTest, DiskGUIDComesFromTheGPTIfTheRegistryHasNone) {
  addService(
      "partition",
      dictionaryOf(
          {{"BSD Name", textValue("disk0s3")}, {"UUID", textValue(kPartitionText)}, {"Base", Value(int64_t{1})}}),
      addService("scheme", {}));
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  EXPECT_EQ(update(1), 0);
  EXPECT_EQ(bytesOf(store), expectedStore(templateBytes, kMDT));
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(machine.openCount(), 0U);
}

// The content of slots that nothing filled is undefined, but it is the same 16 bytes in each slot. All other bytes are
// defined.
TEST_F(BootConfigurationTest, UnreadableGPTStillSucceeds) {
  addService(
      "partition",
      dictionaryOf(
          {{"BSD Name", textValue("disk0s3")}, {"UUID", textValue(kPartitionText)}, {"Base", Value(int64_t{1})}}),
      addService("scheme", {}));
  for (const bool readable : {true, false}) {
    if (!readable) machine.fail("disk0", Operation::open, EACCES);
    EXPECT_EQ(update(0), 0);
    const ByteVector bytes = bytesOf(store);
    ASSERT_EQ(bytes.size(), templateBytes.size());
    EXPECT_EQ(bytes, expectedStore(templateBytes, kStandard, kPartitionBytes, slice(bytes, 5828, 16)));
  }
}

TEST_F(BootConfigurationTest, PartitionNameThatMatchesNoDeviceStillSucceeds) {
  EXPECT_EQ(update(0), 0);
  const ByteVector bytes = bytesOf(store);
  ASSERT_EQ(bytes.size(), templateBytes.size());
  EXPECT_EQ(bytes, expectedStore(templateBytes, kStandard, slice(bytes, 10492, 16), slice(bytes, 5828, 16)));
  EXPECT_EQ(log(), logUpToCopy() + logOfCopy() + kStandard.message + logOfEnd());
}

// ------------------------------------------------------------------------------------------------------------ failures

TEST_F(BootConfigurationTest, FailedMountOfTheEFIPartitionReturnsMinusOne) {
  addIdentifiers();
  machine.refuseMount("disk0s1", kDissentUnsupported);
  EXPECT_EQ(update(0), -1);
  EXPECT_EQ(log(), "Mounting EFI partition on disk0\nproblem mounting efi point s\n");
  EXPECT_FALSE(std::filesystem::exists(store));
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk0s1"));

  forgetLog();
  EXPECT_EQ(update_bcd(source.c_str(), "disk7", "disk0s3", 0), -1);
  EXPECT_EQ(log(), "Mounting EFI partition on disk7\nproblem mounting efi point s\n");
}

TEST_F(BootConfigurationTest, TheStoreIsRefusedAsItsOwnTemplate) {
  addIdentifiers();
  ASSERT_EQ(update(), 0);
  const ByteVector before = bytesOf(store);
  source = mountPoint + "/EFI/../EFI/Microsoft/Boot/BCD";
  forgetLog();
  EXPECT_EQ(update(), -1);
  EXPECT_EQ(log(), logUpToCopy() + source + " is the store itself\n");
  EXPECT_EQ(bytesOf(store), before);
}

TEST_F(BootConfigurationTest, ALinkAsTheStoreIsNotFollowed) {
  addIdentifiers();
  const std::string file = folder / "the host's";
  makeFile("the host's", {'k', 'e', 'p', 't'});
  std::filesystem::remove(store);
  std::filesystem::create_symlink(file, store);
  expectLinkRefused();
  EXPECT_EQ(contentOf(file), "kept");
}

TEST_F(BootConfigurationTest, ALinkAsAFolderIsNotFollowed) {
  addIdentifiers();
  makeFolder("host");
  const std::string boot = mountPoint + "/EFI/Microsoft/Boot";
  std::filesystem::remove_all(boot);
  std::filesystem::create_symlink(folder / "host", boot);
  expectLinkRefused();
  EXPECT_TRUE(std::filesystem::is_empty(folder / "host"));
}

TEST_F(BootConfigurationTest, MissingTemplateLeavesTheStoreAndTheMount) {
  addIdentifiers();
  makeFile("EFI partition/EFI/Microsoft/Boot/BCD", {'o', 'l', 'd'});
  const std::string missing = folder / "no template";
  EXPECT_EQ(update_bcd(missing.c_str(), "disk0", "disk0s3", 0), -1);
  EXPECT_EQ(log(), logUpToCopy() + missing + " does not exist!\n");
  EXPECT_EQ(contentOf(store), "old");
  EXPECT_TRUE(machine.isMounted("disk0s1"));
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk0s1"));
}

TEST_F(BootConfigurationTest, MissingFolderIsReportedWithItsReasonAndNotCreated) {
  addIdentifiers();
  std::filesystem::remove_all(mountPoint + "/EFI/Microsoft");
  const int before = openDescriptors();
  int32_t result = 0;
  {
    OutputCapture output(STDOUT_FILENO);
    OutputCapture errors(STDERR_FILENO);
    result = update(0);
    EXPECT_EQ(errors.text(), std::string("BCD Path Destination error:: ") + std::strerror(ENOENT) + "\n");
    EXPECT_EQ(output.text(), std::strerror(ENOENT));
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(log(), logUpToCopy());
  EXPECT_FALSE(std::filesystem::exists(mountPoint + "/EFI/Microsoft"));
  EXPECT_TRUE(machine.isMounted("disk0s1"));
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk0s1"));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(BootConfigurationTest, FolderAsTheStoreIsReportedWithItsReason) {
  addIdentifiers();
  makeFolder("EFI partition/EFI/Microsoft/Boot/BCD");
  OutputCapture output(STDOUT_FILENO);
  OutputCapture errors(STDERR_FILENO);
  const int32_t result = update(0);
  EXPECT_EQ(errors.text(), std::string("BCD Path Destination error:: ") + std::strerror(EISDIR) + "\n");
  EXPECT_EQ(output.text(), std::strerror(EISDIR));
  EXPECT_EQ(result, -1);
}

TEST_F(BootConfigurationTest, MissingIdentifiersLeaveTheCopyOpenAndTheVolumeMounted) {
  addService("partition", dictionaryOf({{"BSD Name", textValue("disk0s3")}}));
  const int before = openDescriptors();
  EXPECT_EQ(update(0), -1);
  EXPECT_EQ(log(),
            logUpToCopy() + logOfCopy() + "error getting uuidCould not find disk uuid and partion uuid for disk0s3\n");
  EXPECT_TRUE(machine.isMounted("disk0s1"));
  EXPECT_THAT(mountsAndUnmounts(), ElementsAre("mount disk0s1"));
  EXPECT_EQ(keptOpenCount(), 1U);
  EXPECT_EQ(openDescriptors(), before + 1);
  closeKeptOpen();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(bytesOf(store), templateBytes);
}

TEST_F(BootConfigurationTest, PartitionWithoutWholeDiskCountsAsAMissingIdentifier) {
  addService("partition", dictionaryOf({{"BSD Name", textValue("disk0s3")}, {"UUID", textValue(kPartitionText)}}));
  machine.hideWholeDisk("disk0s3");
  EXPECT_EQ(update(1), -1);
  EXPECT_EQ(log(), logUpToCopy() + logOfCopy() +
                       "partition UUID is 00112233445566778899AABBCCDDEEFF\n"
                       "error getting disk from slick disk0s3\n"
                       "Could not find disk uuid and partion uuid for disk0s3\n");
  EXPECT_TRUE(machine.isMounted("disk0s1"));
}

// ------------------------------------------------------------------------------------------- length of the mount point

// "/EFI/Microsoft/Boot/BCD" has 23 characters. With a mount point of 231 characters the path has 254, and its NUL fills
// a buffer of 255.
std::string pathOfLength(const std::string& start, size_t length) {
  return start + "/" + std::string(length - start.size() - 1, 'm');
}

using BootConfigurationDeathTest = BootConfigurationTest;

TEST_F(BootConfigurationTest, LongestMountPointWorks) {
  addIdentifiers();
  const std::string base = std::filesystem::path(folder / "x").parent_path();
  const std::string longest = pathOfLength(base, 231);
  std::filesystem::create_directories(longest + "/EFI/Microsoft/Boot");
  addVolume("disk0s1", longest);
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(bytesOf(longest + "/EFI/Microsoft/Boot/BCD"), expectedStore(templateBytes, kStandard));
}

TEST_F(BootConfigurationDeathTest, LongerMountPointAborts) {
  addIdentifiers();
  const std::string base = std::filesystem::path(folder / "x").parent_path();
  for (const size_t length : {232U, 1000U, 1023U, 1024U, 3000U}) {
    std::string longer = pathOfLength(base, length);
    if (length == 232) std::filesystem::create_directories(longer + "/EFI/Microsoft/Boot");
    addVolume("disk0s1", longer);
    EXPECT_EXIT(update(0), KilledBySignal(SIGABRT), ".") << length;
    if (length == 232) {
      EXPECT_TRUE(std::filesystem::is_empty(longer + "/EFI/Microsoft/Boot"));
      EXPECT_EQ(log(), "Mounting EFI partition on disk0\nmount point is " + longer + "\n");
    }
  }
}

}  // namespace
}  // namespace vorlix::test
