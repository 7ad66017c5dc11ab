// SPDX-License-Identifier: Apache-2.0
//
// Changes to disks: they are made completely or not at all, and interrupted ones are settled.
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/KeptChange.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include "platform/changes/Journal.h"
#include "platform/changes/JournalFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <utility>

namespace vorlix::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kSlice = 40 * 512;  // where disk0s3 starts
constexpr uint64_t kDisk = 4 << 20;
constexpr uint8_t kOld = 0x11;
constexpr uint8_t kNew = 0x22;

// Wraps another handle and calls functions before its writes and syncs.
class HookedHandle : public DeviceHandle {
 public:
  explicit HookedHandle(std::unique_ptr<DeviceHandle> inner) : inner_(std::move(inner)) {}

  std::function<int()> beforeWrite = [] { return 0; };  // an error other than 0 fails the write
  std::function<int()> beforeSync = [] { return 0; };
  const DeviceHandle* sameFile = nullptr;  // whose sync is one of this handle, too

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override { return inner_->readAt(buffer, count, offset); }
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    if ((errno = beforeWrite()) != 0) return -1;
    return inner_->writeAt(buffer, count, offset);
  }
  int sync() override { return (errno = beforeSync()) != 0 ? -1 : inner_->sync(); }
  bool isSyncedWith(const DeviceHandle& other) const override { return &other == sameFile; }
  ssize_t readMediumAt(void* buffer, size_t count, uint64_t offset) override {
    return inner_->readMediumAt(buffer, count, offset);
  }
  std::optional<DeviceIdentity> identity() override { return inner_->identity(); }
  std::optional<uint64_t> size() override { return inner_->size(); }
  int close() override { return inner_->close(); }

 private:
  std::unique_ptr<DeviceHandle> inner_;
};

// Fails the call of that number with EIO, or that call and all later ones.
std::function<int()> failing(int number, bool andLater = false) {
  return [=, calls = 0]() mutable {
    ++calls;
    return calls == number || (andLater && calls > number) ? EIO : 0;
  };
}

// Runs as an ordinary user with a private state folder, because the super-user's state folder belongs to the whole
// machine.
class ChangeTest : public testing::Test {
 protected:
  ChangeTest() : folder_(testing::TempDir() + "vorlixXXXXXX") {
    constexpr uid_t kNobody = 65534;
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + folder_);
    if (geteuid() == 0 && (chown(folder_.c_str(), kNobody, kNobody) != 0 || seteuid(kNobody) != 0)) {
      throw std::runtime_error("cannot become an ordinary user");
    }
    setenv("XDG_STATE_HOME", folder_.c_str(), 1);
    machine.addDisk("disk0", kDisk, 512);
    machine.addSlice("disk0", 3, 40, 4096);
    machine.setBytes("disk0", 0, Bytes(kDisk, kOld));
  }
  ~ChangeTest() override {
    unsetenv("XDG_STATE_HOME");
    if (getuid() == 0 && seteuid(0) != 0) std::abort();
    fs::remove_all(folder_);
  }

  std::shared_ptr<HookedHandle> open(const std::string& name) const {
    auto handle = platform().deviceFile->open(name, DeviceAccess::readWrite, DeviceLock::exclusive);
    if (!handle) throw std::runtime_error(name + ": " + std::strerror(errno));
    return std::make_shared<HookedHandle>(std::move(handle));
  }

  static ByteChange run(uint64_t offset, size_t count, const std::string& reason) {
    return {offset, Bytes(count, kOld), Bytes(count, kNew), reason};
  }

  /// Sector 0 of disk0, and four bytes of disk0s3.
  DiskChange twoWrites() {
    disk = open("disk0");
    slice = open("disk0s3");
    machine.clearJournal();
    return {"hybrid MBR of disk0",
            {{"disk0", disk, {run(0, 512, "sector 0")}}, {"disk0s3", slice, {run(28, 4, "start sector")}}}};
  }

  Bytes expectedDisk(bool sector0, bool field) const {
    Bytes bytes(kDisk, kOld);
    if (sector0) std::fill_n(bytes.begin(), 512, kNew);
    if (field) std::fill_n(bytes.begin() + kSlice + 28, 4, kNew);
    return bytes;
  }
  Bytes wholeDisk() const { return machine.bytes("disk0", 0, kDisk); }

  std::vector<std::string> journals() const {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(fs::path(folder_) / "vorlix/journals", none)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  /// Returns the journal of the same two writes as left by a process that ends after commit().
  std::unique_ptr<Journal> committed(const DiskChange& change) const {
    std::unique_ptr<JournalWriter> writer;
    std::unique_ptr<Journal> journal;
    EXPECT_FALSE(JournalWriter::begin(change.title, {}, writer));
    for (const DeviceChange& device : change.devices) {
      const size_t index = writer->addDevice(device.device, *device.handle->identity());
      for (const ByteChange& one : device.bytes) {
        EXPECT_FALSE(writer->add(index, one.offset, one.before, one.after, one.reason));
      }
    }
    EXPECT_FALSE(writer->commit(journal));
    return journal;
  }

  std::optional<ChangeFailure> settle(const std::string& name = "disk0") {
    finished.clear();
    const auto handle = open(name);
    machine.clearJournal();
    return settleInterruptedChanges(name, *handle, finished);
  }

  std::string stateFolder() const { return folder_; }

  SimulatedMachine machine;
  std::shared_ptr<HookedHandle> disk;
  std::shared_ptr<HookedHandle> slice;
  std::vector<std::string> finished;

 private:
  std::string folder_;
  ScopedPlatform scope_{machine.platform()};
};

// -------------------------------------------------------------------------------------------------------- application

TEST_F(ChangeTest, WritesInOrderSyncsAndLeavesNoJournal) {
  EXPECT_FALSE(applyChange(twoWrites()));
  EXPECT_THAT(machine.writes(), ElementsAre("write disk0 0+512", "write disk0s3 28+4", "sync disk0", "sync disk0s3"));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, HandlesOfOneFileAreSyncedOnce) {
  DiskChange change = twoWrites();
  slice->sameFile = disk.get();
  EXPECT_FALSE(applyChange(change));
  EXPECT_THAT(machine.writes(), ElementsAre("write disk0 0+512", "write disk0s3 28+4", "sync disk0"));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
}

TEST_F(ChangeTest, TheOneSyncOfAFileCountsForAllItsHandles) {
  DiskChange change = twoWrites();
  slice->sameFile = disk.get();
  disk->beforeSync = failing(1);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, "disk0");
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, IsJournalledBeforeTheFirstWrite) {
  const DiskChange change = twoWrites();
  std::vector<std::string> seen;
  bool sameAsItself = false;
  disk->beforeWrite = [&] {
    seen = journals();
    std::optional<ChangeFailure> failure;
    const auto journal = Journal::open(journalsInStateFolder().front(), failure);
    sameAsItself = journal && journal->title() == change.title && journal->runs().size() == 2 && !journal->lock();
    return 0;
  };
  EXPECT_FALSE(applyChange(change));
  EXPECT_EQ(seen.size(), 1U);
  EXPECT_TRUE(sameAsItself) << "must be complete and locked by its writer";
}

TEST_F(ChangeTest, AnEmptyChangeDoesNothing) {
  DiskChange change = twoWrites();
  EXPECT_FALSE(change.empty());
  for (DeviceChange& device : change.devices) device.bytes.front().after = device.bytes.front().before;
  EXPECT_TRUE(change.empty());
  EXPECT_FALSE(applyChange(change));
  EXPECT_THAT(machine.journal(), IsEmpty());
  EXPECT_FALSE(fs::exists(stateFolder() + "/vorlix"));
}

TEST_F(ChangeTest, BytesThatSomebodyElseChangedPreventAllWrites) {
  const DiskChange change = twoWrites();
  machine.setBytes("disk0", kSlice + 31, {0x99});
  const Bytes before = wholeDisk();
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, "disk0s3");
  EXPECT_EQ(failure->reason, "start sector: somebody else changed it since it was looked at");
  EXPECT_EQ(failure->state, "nothing was written");
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(wholeDisk(), before);
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, AFailedWriteIsRestored) {
  const DiskChange change = twoWrites();
  slice->beforeWrite = failing(1);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, std::string("start sector: ") + std::strerror(EIO));
  EXPECT_EQ(failure->state, "what was written was put back, so that nothing is changed");
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
}

// A bad sector also fails when the old bytes are written again, and still holds them.
TEST_F(ChangeTest, AWriteThatAlwaysFailsIsRestoredAndDoesNotBlockTheDisk) {
  const DiskChange change = twoWrites();
  slice->beforeWrite = failing(1, true);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->state, "what was written was put back, so that nothing is changed");
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, RestoringSkipsBytesThatSomebodyElseWroteMeanwhile) {
  const DiskChange change = twoWrites();
  slice->beforeWrite = [&] {
    machine.setBytes("disk0", 100, {0x99});
    return EIO;
  };
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_THAT(failure->state, HasSubstr("somebody else wrote there meanwhile, so nothing was put back"));
  Bytes expected = expectedDisk(true, false);
  expected[100] = 0x99;
  EXPECT_EQ(wholeDisk(), expected);
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(ChangeTest, AShortWriteIsRestoredNowOrByTheNextCommand) {
  const DiskChange change = twoWrites();
  machine.shortenWrites("disk0s3", 3);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, "start sector: only a part of it could be written");
  // Writing the old bytes is cut short too, so the journal stays until the medium accepts all of them.
  EXPECT_THAT(failure->state, HasSubstr("the next command on this disk finishes the change"));
  EXPECT_EQ(journals().size(), 1U);
  machine.shortenWrites("disk0s3", 512);
  EXPECT_FALSE(settle());
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, AFailedSyncIsRestored) {
  const DiskChange change = twoWrites();
  disk->beforeSync = failing(1);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, "disk0");
  EXPECT_EQ(failure->reason, std::string("what was written is not on the medium: ") + std::strerror(EIO));
  EXPECT_EQ(failure->state, "what was written was put back, so that nothing is changed");
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, BytesThatCannotBeRestoredStayInTheJournalAndTheNextCommandFinishes) {
  const DiskChange change = twoWrites();
  disk->beforeWrite = failing(2, true);  // the first write succeeds
  slice->beforeWrite = failing(1, true);
  const auto failure = applyChange(change);
  ASSERT_TRUE(failure);
  EXPECT_THAT(
      failure->state,
      AllOf(HasSubstr("sector 0 is written, start sector is not written; the next command on this disk finishes "
                      "the change, which is kept in "),
            HasSubstr(stateFolder())));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, false));
  ASSERT_EQ(journals().size(), 1U);

  const auto interrupted = interruptedChanges(*open("disk0"));
  ASSERT_EQ(interrupted.size(), 1U);
  EXPECT_EQ(interrupted[0].title, "hybrid MBR of disk0");
  EXPECT_FALSE(settle());
  EXPECT_THAT(finished, ElementsAre("hybrid MBR of disk0"));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, ALongRunIsWrittenInPieces) {
  disk = open("disk0");
  const size_t count = (5 * kLongestRun) / 2;
  EXPECT_FALSE(applyChange({"long", {{"disk0", disk, {run(512, count, "long")}}}}));
  Bytes expected(kDisk, kOld);
  std::fill_n(expected.begin() + 512, count, kNew);
  EXPECT_EQ(wholeDisk(), expected);
  EXPECT_THAT(journals(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------- interruption

TEST_F(ChangeTest, AChangeThatWroteNothingIsDropped) {
  committed(twoWrites()).reset();
  EXPECT_EQ(interruptedChanges(*open("disk0s3")).size(), 1U);
  EXPECT_FALSE(settle());
  EXPECT_THAT(finished, IsEmpty());
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  EXPECT_THAT(journals(), IsEmpty());
  EXPECT_FALSE(settle());
  EXPECT_THAT(machine.writes(), IsEmpty()) << "the second call must find nothing";
}

TEST_F(ChangeTest, AChangeThatWroteSomethingIsFinished) {
  committed(twoWrites()).reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  EXPECT_FALSE(settle());
  EXPECT_THAT(finished, ElementsAre("hybrid MBR of disk0"));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
}

// The new bytes may be in the cache only.
TEST_F(ChangeTest, ACompletelyWrittenChangeIsWrittenAndSyncedAgain) {
  committed(twoWrites()).reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  machine.setBytes("disk0", kSlice + 28, Bytes(4, kNew));
  EXPECT_FALSE(settle());
  EXPECT_THAT(machine.writes(), ElementsAre("write disk0 0+512", "write disk0s3 28+4", "sync disk0", "sync disk0s3"));
  EXPECT_THAT(finished, ElementsAre("hybrid MBR of disk0"));
}

// A medium writes whole sectors. A run that starts at byte 84 can be torn only at the end of a sector.
TEST_F(ChangeTest, ARunIsTornAtTheEndOfASector) {
  disk = open("disk0");
  committed({"boot record", {{"disk0", disk, {run(84, 8108, "boot record")}}}}).reset();
  machine.setBytes("disk0", 84, Bytes(1024 - 84, kNew));
  EXPECT_FALSE(settle());
  EXPECT_THAT(finished, ElementsAre("boot record"));
  Bytes expected(kDisk, kOld);
  std::fill_n(expected.begin() + 84, 8108, kNew);
  EXPECT_EQ(wholeDisk(), expected);
}

TEST_F(ChangeTest, BytesThatSomebodyElseWroteMeanwhileAreKept) {
  const auto folder = committed(twoWrites())->folder();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  machine.setBytes("disk0", kSlice + 29, {0x99});
  const Bytes before = wholeDisk();
  const auto failure = settle();
  ASSERT_TRUE(failure);
  EXPECT_THAT(failure->reason, AllOf(HasSubstr("hybrid MBR of disk0"), HasSubstr("somebody else wrote there meanwhile"),
                                     HasSubstr("remove " + folder)));
  EXPECT_EQ(failure->state, "nothing was written");
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(wholeDisk(), before);
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(ChangeTest, AChangeInProgressIsNotTouched) {
  const auto running = committed(twoWrites());
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  const auto failure = settle();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, "another process is changing this disk (hybrid MBR of disk0)");
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(ChangeTest, ADamagedJournalIsReportedAndNothingIsWritten) {
  for (const char* file : {"before.bin", "after.bin"}) {
    auto journal = committed(twoWrites());
    const std::string folder = journal->folder();
    journal.reset();
    machine.setBytes("disk0", 0, Bytes(512, kNew));
    {
      std::fstream image(folder + "/" + file, std::ios::in | std::ios::out | std::ios::binary);
      image.seekp(100);
      image.put('?');
    }
    const auto failure = settle();
    ASSERT_TRUE(failure) << file;
    EXPECT_EQ(failure->subject, folder);
    EXPECT_THAT(failure->reason, HasSubstr("the journal is damaged"));
    EXPECT_THAT(machine.writes(), IsEmpty());
    fs::remove_all(folder);
    machine.setBytes("disk0", 0, Bytes(512, kOld));
  }
}

TEST_F(ChangeTest, AJournalThatCannotBeLookedAtStopsAllWritersAndStays) {
  const std::string folder = committed(twoWrites())->folder();
  const std::string manifest = folder + "/manifest.json";
  fs::remove(manifest);
  fs::create_symlink("manifest.json", manifest);  // ELOOP, even for root
  const auto failure = settle();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, folder);
  EXPECT_THAT(failure->reason, HasSubstr("which disk it is for cannot be told"));
  // The next journal is begun by removing those that nobody finished to write.
  std::unique_ptr<JournalWriter> writer;
  EXPECT_FALSE(JournalWriter::begin("another change", {}, writer));
  EXPECT_TRUE(fs::is_symlink(manifest));
}

TEST_F(ChangeTest, AnUnreadableJournalStopsAllWriters) {
  const std::string folder = committed(twoWrites())->folder();
  fs::resize_file(folder + "/manifest.json", 20);
  machine.addDisk("disk1", 1 << 20, 512);
  const auto failure = settle("disk1");
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, folder);
  EXPECT_THAT(failure->reason, HasSubstr("which disk it is for cannot be told"));
  const auto told = interruptedChanges(*open("disk1"));
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(told[0].journal, folder);
  fs::remove_all(folder);
  EXPECT_FALSE(settle("disk1"));
}

// The number of a disk changes with each attachment, and an image may be copied back.
TEST_F(ChangeTest, AHalfWrittenDiskIsRecognizedUnderAnotherName) {
  committed(twoWrites()).reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  machine.addDisk("disk7", kDisk, 512);
  machine.setBytes("disk7", 0, wholeDisk());
  EXPECT_FALSE(settle("disk7"));
  EXPECT_THAT(finished, ElementsAre("hybrid MBR of disk0"));
  EXPECT_EQ(machine.bytes("disk7", 0, kDisk), expectedDisk(true, true));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, false)) << "this is another disk";
  EXPECT_EQ(journals().size(), 1U) << "disk0 still needs it";
  EXPECT_FALSE(settle());
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, ADiskWithTheOldBytesIsNotMistakenForAnotherOne) {
  committed(twoWrites()).reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  machine.addDisk("disk7", kDisk, 512);
  machine.setBytes("disk7", 0, Bytes(kDisk, kOld));
  EXPECT_FALSE(settle("disk7"));
  EXPECT_THAT(finished, IsEmpty());
  EXPECT_EQ(machine.bytes("disk7", 0, kDisk), Bytes(kDisk, kOld));
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(ChangeTest, AnotherDisksJournalIsIgnored) {
  machine.addDisk("disk1", 1 << 20, 512);
  committed(twoWrites()).reset();
  EXPECT_THAT(interruptedChanges(*open("disk1")), IsEmpty());
  EXPECT_FALSE(settle("disk1"));
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(ChangeTest, AMissingSliceIsReachedThroughItsDisk) {
  DiskChange change = twoWrites();
  change.devices[1].device = "no such slice";
  committed(change).reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  EXPECT_FALSE(settle());
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, AFailureToFinishReportsTheState) {
  committed(twoWrites()).reset();
  machine.fail("disk0", Operation::sync, EIO);
  const auto failure = settle();
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->subject, "disk0");
  EXPECT_EQ(failure->state.find("nothing was written"), std::string::npos);
  EXPECT_THAT(failure->state, HasSubstr(stateFolder()));
  EXPECT_EQ(journals().size(), 1U);
}

// ------------------------------------------------------------------------------------------------------------ backups

const ChangeBackup kInStateFolder = {ChangeBackup::Place::stateFolder, ""};

// What undoes a change, as a change to the devices that it was made on.
DiskChange undoOf(const std::string& folder, const std::vector<std::shared_ptr<HookedHandle>>& handles) {
  KeptChange kept;
  EXPECT_FALSE(readKeptChange(folder, kept));
  for (size_t i = 0; i < handles.size(); ++i) kept.undo.devices[i].handle = handles[i];
  return kept.undo;
}

TEST_F(ChangeTest, TheJournalBecomesTheBackupFromWhichTheChangeIsUndone) {
  std::string kept;
  EXPECT_FALSE(applyChange(twoWrites(), kInStateFolder, kept));
  EXPECT_EQ(wholeDisk(), expectedDisk(true, true));
  EXPECT_THAT(journals(), IsEmpty());
  EXPECT_THAT(keptChanges(), ElementsAre(kept));
  EXPECT_TRUE(isKeptInStateFolder(kept));
  EXPECT_FALSE(applyChange(undoOf(kept, {disk, slice})));
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
  dropKeptChange(kept);
  EXPECT_THAT(keptChanges(), IsEmpty());
  EXPECT_FALSE(isKeptInStateFolder(kept));
}

TEST_F(ChangeTest, ABackupSaysWhereItsDevicesAreOnTheirDisk) {
  std::string folder;
  EXPECT_FALSE(applyChange(twoWrites(), kInStateFolder, folder));
  KeptChange kept;
  ASSERT_FALSE(readKeptChange(folder, kept));
  EXPECT_THAT(kept.offsets, ElementsAre(0U, kSlice));
  EXPECT_EQ(kept.title, "hybrid MBR of disk0");
  EXPECT_EQ(kept.undo.devices[1].device, "disk0s3");
  EXPECT_EQ(kept.undo.devices[1].bytes[0].offset, 28U);
  EXPECT_EQ(kept.undo.devices[1].bytes[0].before, Bytes(4, kNew));
  EXPECT_EQ(kept.undo.devices[1].bytes[0].after, Bytes(4, kOld));
  EXPECT_EQ(kept.begun.size(), std::strlen("2026-11-22T01:02:03Z"));
}

TEST_F(ChangeTest, ABackupInAFolderIsCompleteBeforeTheFirstWrite) {
  const ChangeBackup backup = {ChangeBackup::Place::folder, stateFolder() + "/saved"};
  DiskChange change = twoWrites();
  bool isComplete = false;
  disk->beforeWrite = [&] {
    for (const auto& entry : fs::directory_iterator(backup.folder)) {
      KeptChange kept;
      isComplete = !readKeptChange(entry.path().string(), kept) && kept.undo.devices.size() == 2;
    }
    return 0;
  };
  std::string kept;
  EXPECT_FALSE(applyChange(change, backup, kept));
  EXPECT_TRUE(isComplete);
  EXPECT_EQ(fs::path(kept).parent_path(), backup.folder);
  EXPECT_THAT(keptChanges(), IsEmpty());
  EXPECT_FALSE(isKeptInStateFolder(kept));
}

TEST_F(ChangeTest, AChangeThatIsNotMadeLeavesNoBackup) {
  for (const ChangeBackup& backup :
       {kInStateFolder, ChangeBackup{ChangeBackup::Place::folder, stateFolder() + "/saved"}}) {
    DiskChange change = twoWrites();
    slice->beforeWrite = failing(1);
    std::string kept;
    EXPECT_TRUE(applyChange(change, backup, kept));
    EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
    EXPECT_EQ(kept, "");
    EXPECT_THAT(keptChanges(), IsEmpty());
    EXPECT_TRUE(backup.folder.empty() || fs::is_empty(backup.folder));
    slice.reset();
    disk.reset();
  }
}

TEST_F(ChangeTest, ABackupThatCannotBeMadeRefusesTheChange) {
  const std::string file = stateFolder() + "/file";
  std::ofstream(file) << "no folder";
  std::string kept;
  const auto failure = applyChange(twoWrites(), {ChangeBackup::Place::folder, file}, kept);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->state, "nothing was written");
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_THAT(journals(), IsEmpty());
}

TEST_F(ChangeTest, AnInterruptedChangeThatIsFinishedLaterHasItsBackupThen) {
  const DiskChange change = twoWrites();
  std::unique_ptr<JournalWriter> writer;
  std::unique_ptr<Journal> journal;
  ASSERT_FALSE(JournalWriter::begin(change.title, kInStateFolder, writer));
  const size_t index = writer->addDevice("disk0", *disk->identity());
  ASSERT_FALSE(writer->add(index, 0, Bytes(1024, kOld), Bytes(1024, kNew), "two sectors"));
  ASSERT_FALSE(writer->commit(journal));
  journal.reset();
  slice.reset();
  disk.reset();
  machine.setBytes("disk0", 0, Bytes(512, kNew));
  EXPECT_FALSE(settle());
  EXPECT_THAT(finished, ElementsAre(change.title));
  EXPECT_THAT(journals(), IsEmpty());
  ASSERT_EQ(keptChanges().size(), 1U);
  disk = open("disk0");
  EXPECT_FALSE(applyChange(undoOf(keptChanges().front(), {disk})));
  EXPECT_EQ(wholeDisk(), expectedDisk(false, false));
}

TEST_F(ChangeTest, FilesOfAVolumeAreKeptWithTheirOldContent) {
  const std::string hash(64, 'a');
  const std::vector<FileChange> files = {{"disk0s3", "/boot", true, std::nullopt, ""},
                                         {"disk0s3", "/boot/BCD", false, std::nullopt, hash},
                                         {"disk0s3", "/bootmgr", false, Bytes{1, 2, 3}, hash}};
  std::string folder;
  ASSERT_FALSE(keepFileChanges("files", files, kInStateFolder, folder));
  KeptChange kept;
  ASSERT_FALSE(readKeptChange(folder, kept));
  ASSERT_EQ(kept.files.size(), 3U);
  EXPECT_TRUE(kept.files[0].isFolder);
  EXPECT_EQ(kept.files[1].before, std::nullopt);
  EXPECT_EQ(kept.files[1].after, hash);
  EXPECT_EQ(kept.files[2].before, (Bytes{1, 2, 3}));
  EXPECT_EQ(kept.files[2].path, "/bootmgr");
  EXPECT_FALSE(keepFileChanges("files", files, {}, folder));
  EXPECT_EQ(folder, "");
}

TEST_F(ChangeTest, APathOutOfTheVolumeIsADamagedBackup) {
  for (const std::string path : {"boot", "/", "/boot/../../etc/passwd", "/.."}) {
    std::string folder;
    ASSERT_FALSE(keepFileChanges("files", {{"disk0s3", path, true, std::nullopt, ""}}, kInStateFolder, folder));
    KeptChange kept;
    EXPECT_TRUE(readKeptChange(folder, kept)) << path;
  }
}

// ------------------------------------------------------------------------------------------------------------ writers

TEST_F(ChangeTest, AnUncommittedJournalIsRemoved) {
  std::unique_ptr<JournalWriter> writer;
  ASSERT_FALSE(JournalWriter::begin("dropped", {}, writer));
  EXPECT_EQ(journals().size(), 1U);
  EXPECT_THAT(journalsInStateFolder(), IsEmpty());
  writer.reset();
  EXPECT_THAT(journals(), IsEmpty());
}

// A real image, and a process that ends at each of its writes.
TEST_F(ChangeTest, AChangeInterruptedAtAnyWriteIsFinishedOrDropped) {
  const ScopedPlatform native(nativePlatform());
  const std::string image = stateFolder() + "/disk.img";
  for (int last = 1; last <= 3; ++last) {
    std::ofstream(image, std::ios::binary).write(std::string(4096, static_cast<char>(kOld)).data(), 4096);
    const auto change = [&] {
      return DiskChange{"three sectors",
                        {{image, open(image), {run(0, 512, "a"), run(1024, 512, "b"), run(2048, 512, "c")}}}};
    };
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      DiskChange made = change();
      static_cast<HookedHandle&>(*made.devices[0].handle).beforeWrite = [&, count = 0]() mutable {
        if (++count == last) _exit(7);
        return 0;
      };
      static_cast<void>(applyChange(made));
      _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    EXPECT_EQ(journals().size(), 1U) << last;

    const auto handle = open(image);
    finished.clear();
    EXPECT_FALSE(settleInterruptedChanges(image, *handle, finished));
    Bytes expected(4096, kOld);
    if (last > 1) {
      for (const size_t at : {size_t{0}, size_t{1024}, size_t{2048}})
        std::fill_n(expected.begin() + static_cast<ptrdiff_t>(at), 512, kNew);
    }
    EXPECT_EQ(finished.size(), last > 1 ? 1U : 0U) << last;
    Bytes now(4096);
    EXPECT_EQ(handle->readAt(now.data(), now.size(), 0), 4096);
    EXPECT_EQ(now, expected) << last;
    EXPECT_THAT(journals(), IsEmpty()) << last;
  }
}

}  // namespace
}  // namespace vorlix::test
