// SPDX-License-Identifier: Apache-2.0
//
// Restores: the order on the medium, what is read back, and what becomes of an interrupted one.
#include <Vorlix/Restore.h>
#include <Vorlix/platform/KeptChange.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <utility>

namespace vorlix::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Content = std::vector<uint8_t>;

constexpr size_t kPiece = 4096;
constexpr size_t kVolume = 8 * kPiece;
constexpr size_t kLastSector = kVolume - 512;

// A device in memory that notes what is done to it.
class MemoryDevice final : public DeviceHandle {
 public:
  MemoryDevice(std::string name, size_t size, uint8_t fill) : bytes(size, fill), name_(std::move(name)) {}

  Content bytes;
  std::vector<std::string> calls;
  std::function<void(Content&, uint64_t, size_t)> afterWrite = [](Content&, uint64_t, size_t) {};
  int failingWrite = 0;  // the number of the write that fails with EIO

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    if (offset >= bytes.size()) return 0;
    count = std::min(count, bytes.size() - static_cast<size_t>(offset));
    std::memcpy(buffer, bytes.data() + offset, count);
    return static_cast<ssize_t>(count);
  }
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    if (--failingWrite == 0) {
      errno = EIO;
      return -1;
    }
    calls.push_back("write " + std::to_string(offset) + "+" + std::to_string(count));
    std::memcpy(bytes.data() + offset, buffer, count);
    afterWrite(bytes, offset, count);
    return static_cast<ssize_t>(count);
  }
  int sync() override {
    calls.push_back("sync");
    return 0;
  }
  std::optional<DeviceIdentity> identity() override { return DeviceIdentity{"memory " + name_, 0}; }
  std::optional<uint64_t> size() override { return bytes.size(); }
  int close() override { return 0; }

 private:
  std::string name_;
};

// A volume of eight pieces: seven of data with the number of the piece in every byte, and one of zeros.
class NumberedSource final : public ImageSource {
 public:
  NumberedSource() {
    facts_.size = kVolume;
    facts_.start = Content(512, 1);
  }

  int failingPiece = -1;

  // As a source that is another volume each time, with this boot sector.
  void isMadeAnew(const Content& bootSector) {
    facts_.start = bootSector;
    facts_.key = Content(208, 7);
    facts_.isMadeAnew = true;
  }

  ImagePiece next(std::span<uint8_t> buffer) override {
    ImagePiece piece;
    piece.offset = position_;
    const auto number = static_cast<int>(position_ / kPiece);
    if (position_ == kVolume) return piece;
    if (number == failingPiece) {
      piece.kind = ImagePiece::Kind::failure;
      piece.failure = {"numbers", "cannot be read on"};
      return piece;
    }
    piece.length = kPiece;
    piece.kind = number == 3 ? ImagePiece::Kind::zeros : ImagePiece::Kind::data;
    if (number != 3) std::fill_n(buffer.begin(), kPiece, static_cast<uint8_t>(number + 1));
    position_ += kPiece;
    return piece;
  }
  std::optional<ImageFailure> moveTo(uint64_t offset) override {
    position_ = offset;
    return std::nullopt;
  }
  uint64_t bytesRead() const override { return position_; }

 private:
  uint64_t position_ = 0;
};

// A hole of a gigabyte.
class HoleSource final : public ImageSource {
 public:
  static constexpr uint64_t kHole = uint64_t{1} << 30;

  HoleSource() {
    facts_.size = kHole;
    facts_.start = Content(512, 0);
  }
  ImagePiece next(std::span<uint8_t>) override {
    ImagePiece piece;
    piece.offset = std::exchange(position_, kHole);
    piece.length = kHole - piece.offset;
    piece.kind = piece.length == 0 ? ImagePiece::Kind::end : ImagePiece::Kind::zeros;
    return piece;
  }
  std::optional<ImageFailure> moveTo(uint64_t offset) override {
    position_ = offset;
    return std::nullopt;
  }
  uint64_t bytesRead() const override { return position_; }

 private:
  uint64_t position_ = 0;
};

// A device of zeros as large as the hole, which does not know what it stores.
class BlankDevice final : public DeviceHandle {
 public:
  uint64_t read = 0;

  ssize_t readAt(void* buffer, size_t count, uint64_t) override {
    read += count;
    std::memset(buffer, 0, count);
    return static_cast<ssize_t>(count);
  }
  ssize_t writeAt(const void*, size_t count, uint64_t) override { return static_cast<ssize_t>(count); }
  int sync() override { return 0; }
  std::optional<DeviceIdentity> identity() override { return DeviceIdentity{"blank", 0}; }
  std::optional<uint64_t> size() override { return HoleSource::kHole; }
  int close() override { return 0; }
};

// The volume that the source has, with the structures of the plan.
Content restoredVolume() {
  Content bytes;
  for (int number = 0; number < 8; ++number)
    bytes.insert(bytes.end(), kPiece, number == 3 ? 0 : static_cast<uint8_t>(number + 1));
  std::fill_n(bytes.begin(), 512, uint8_t{0xB0});
  std::fill_n(bytes.begin() + kLastSector, 512, uint8_t{0xB0});
  return bytes;
}

// The state folder of an ordinary user of the test's own.
class RestoreTest : public testing::Test {
 protected:
  RestoreTest() : folder_(testing::TempDir() + "vorlixXXXXXX") {
    constexpr uid_t kNobody = 65534;
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + folder_);
    if (geteuid() == 0 && (chown(folder_.c_str(), kNobody, kNobody) != 0 || seteuid(kNobody) != 0)) {
      throw std::runtime_error("cannot become an ordinary user");
    }
    setenv("XDG_STATE_HOME", folder_.c_str(), 1);
  }
  ~RestoreTest() override {
    unsetenv("XDG_STATE_HOME");
    if (getuid() == 0 && seteuid(0) != 0) std::abort();
    fs::remove_all(folder_);
  }

  RestorePlan plan() const {
    RestorePlan plan;
    plan.source = "numbers";
    const Content old(512, 0xEE);
    const Content boot(512, 0xB0);
    plan.structures = {"restore of numbers",
                       {{"volume", volume, {{0, old, boot, "the boot sector"}, {kLastSector, old, boot, "the copy"}}},
                        {"disk", disk, {{0, Content(512, 0xDD), Content(512, 0xD0), "sector 0"}}}}};
    plan.backup = {ChangeBackup::Place::stateFolder, ""};
    return plan;
  }

  static bool goOn(const RestoreProgress&) { return true; }

  RestoreResult restore(NumberedSource& source, bool compare = true) const {
    return restoreVolume(source, plan(), compare, goOn);
  }

  // Restores while nothing can be added to a folder of the state folder once the content is written.
  RestoreResult restoreWithLocked(const std::string& name) const {
    const fs::path folder = fs::path(folder_) / "vorlix" / name;
    NumberedSource source;
    RestoreResult result = restoreVolume(source, plan(), true, [&](const RestoreProgress& progress) {
      if (progress.phase == RestoreProgress::Phase::comparing) permit(folder, fs::perms::owner_write, false);
      return true;
    });
    permit(folder, fs::perms::owner_write, true);
    return result;
  }

  static void permit(const fs::path& folder, fs::perms rights, bool isAllowed) {
    fs::permissions(folder, rights, isAllowed ? fs::perm_options::add : fs::perm_options::remove);
  }

  RestoreResult resume() const {
    std::optional<ChangeFailure> failure;
    auto journal = openLongChange(interruptedLongChanges().at(0), failure);
    EXPECT_FALSE(failure);
    NumberedSource source;
    return resumeRestore(std::move(journal), source, {volume, disk}, true, goOn);
  }

  std::shared_ptr<MemoryDevice> volume = std::make_shared<MemoryDevice>("volume", kVolume, 0xEE);
  std::shared_ptr<MemoryDevice> disk = std::make_shared<MemoryDevice>("disk", 4096, 0xDD);

 private:
  std::string folder_;
};

TEST_F(RestoreTest, TheContentComesFirstThenTheBootSectorsAndSector0Last) {
  NumberedSource source;
  size_t writesOfVolumeBeforeDisk = 0;
  disk->afterWrite = [&](Content&, uint64_t, size_t) { writesOfVolumeBeforeDisk = volume->calls.size(); };
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::done) << result.failure.reason;
  EXPECT_EQ(result.size, kVolume);
  EXPECT_EQ(volume->bytes, restoredVolume());
  EXPECT_EQ(Content(disk->bytes.begin(), disk->bytes.begin() + 512), Content(512, 0xD0));
  EXPECT_THAT(volume->calls, ElementsAre("write 0+512", "sync", "write 0+4096", "write 4096+4096", "write 8192+4096",
                                         "write 12288+4096", "write 16384+4096", "write 20480+4096", "write 24576+4096",
                                         "write 28672+4096", "sync", "write 0+512", "write 32256+512", "sync"));
  EXPECT_EQ(writesOfVolumeBeforeDisk, 13U);
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
}

TEST_F(RestoreTest, UntilTheContentIsThereTheVolumeHasNoBootSector) {
  NumberedSource source;
  source.failingPiece = 6;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.reason, "cannot be read on");
  EXPECT_EQ(result.size, 6 * kPiece);
  EXPECT_THAT(interruptedLongChanges(), ElementsAre(result.journal));
  EXPECT_EQ(Content(volume->bytes.begin(), volume->bytes.begin() + 512), Content(512, 0));
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
}

TEST_F(RestoreTest, ALongHoleCanBeStoppedOnTheWayAndGoesOnThere) {
  constexpr uint64_t kSoon = uint64_t{300} << 20;
  const auto blank = std::make_shared<BlankDevice>();
  RestorePlan hole;
  hole.source = "a hole";
  hole.structures = {"restore of a hole",
                     {{"blank", blank, {{0, Content(512, 0), Content(512, 0), "the boot sector"}}}}};
  HoleSource source;
  int calls = 0;
  const RestoreResult stopped = restoreVolume(source, hole, false, [&](const RestoreProgress&) { return ++calls < 4; });
  EXPECT_EQ(stopped.end, RestoreResult::End::cancelled);
  EXPECT_GT(stopped.size, 0U);
  EXPECT_LT(stopped.size, kSoon);
  EXPECT_LE(blank->read, stopped.size + 512);  // and the boot sector
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(stopped.journal, failure);
  ASSERT_FALSE(failure);
  EXPECT_EQ(journal->pieces().back().offset + journal->pieces().back().length, stopped.size);
  blank->read = 0;
  HoleSource again;
  const RestoreResult result = resumeRestore(std::move(journal), again, {blank}, false, goOn);
  EXPECT_EQ(result.end, RestoreResult::End::done) << result.failure.reason;
  EXPECT_EQ(result.size, HoleSource::kHole);
  EXPECT_LE(blank->read, HoleSource::kHole - stopped.size + kSoon / 300);  // and the structures
}

TEST_F(RestoreTest, ASourceThatIsMadeAnewIsWrittenFromItsFirstByteAgain) {
  constexpr size_t kSerial = 72;
  Content bootSector(512, 0xB0);
  NumberedSource source;
  source.isMadeAnew(bootSector);
  source.failingPiece = 6;
  restore(source);
  const auto resumeWith = [&](const Content& start) {
    std::optional<ChangeFailure> failure;
    auto journal = openLongChange(interruptedLongChanges().at(0), failure);
    EXPECT_FALSE(failure);
    NumberedSource again;
    again.isMadeAnew(start);
    volume->calls.clear();
    return resumeRestore(std::move(journal), again, {volume, disk}, true, goOn);
  };
  Content elsewhere = bootSector;
  elsewhere[48] = 0;  // where the file table begins
  const RestoreResult refused = resumeWith(elsewhere);
  EXPECT_EQ(refused.end, RestoreResult::End::failed);
  EXPECT_THAT(refused.failure.reason, HasSubstr("another volume"));
  EXPECT_THAT(volume->calls, IsEmpty());
  EXPECT_THAT(interruptedLongChanges(), ElementsAre(refused.journal));
  std::fill_n(bootSector.begin() + kSerial, 8, uint8_t{0x55});
  const RestoreResult result = resumeWith(bootSector);
  EXPECT_EQ(result.end, RestoreResult::End::done) << result.failure.reason;
  EXPECT_EQ(volume->calls.at(0), "write 0+512");
  EXPECT_EQ(volume->calls.at(2), "write 0+4096");
  EXPECT_EQ(volume->bytes, restoredVolume());  // with the serial number of the first run
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
}

TEST_F(RestoreTest, ItGoesOnBehindTheLastPieceOnTheMedium) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source);
  volume->calls.clear();
  const RestoreResult result = resume();
  EXPECT_EQ(result.end, RestoreResult::End::done) << result.failure.reason;
  EXPECT_EQ(volume->calls.front(), "write 24576+4096");
  EXPECT_EQ(volume->bytes, restoredVolume());
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
  EXPECT_EQ(keptChanges().size(), 1U);
}

TEST_F(RestoreTest, ADiskThatIsNotAsTheRestoreLeftItIsNotWrittenTo) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source);
  struct Case {
    std::shared_ptr<MemoryDevice> device;
    const char* structure;
  };
  for (const Case& changed : {Case{volume, "the boot sector"}, Case{disk, "sector 0"}}) {
    const uint8_t was = std::exchange(changed.device->bytes.at(100), uint8_t{0x77});
    volume->calls.clear();
    disk->calls.clear();
    const RestoreResult refused = resume();
    EXPECT_EQ(refused.end, RestoreResult::End::failed);
    EXPECT_EQ(refused.failure.reason,
              std::string(changed.structure) + " was changed since; perhaps another disk has the name now");
    EXPECT_THAT(volume->calls, IsEmpty());
    EXPECT_THAT(disk->calls, IsEmpty());
    EXPECT_THAT(interruptedLongChanges(), ElementsAre(refused.journal));
    changed.device->bytes.at(100) = was;
  }
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

TEST_F(RestoreTest, WhatReadsBackDifferentlyIsAFailureBeforeAnythingStarts) {
  volume->afterWrite = [](Content& bytes, uint64_t offset, size_t) {
    if (offset == 2 * kPiece) bytes[2 * kPiece + 77] ^= 1;
  };
  NumberedSource source;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.subject, "volume");
  EXPECT_THAT(result.failure.reason, HasSubstr("at byte 8192: reads back differently"));
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
  EXPECT_EQ(volume->bytes[0], 0);
}

TEST_F(RestoreTest, APauseComesWhenTheVolumeIsWholeAndBeforeSectorZero) {
  RestorePlan pausing = plan();
  pausing.between = "files";
  NumberedSource source;
  RestoreResult paused = restoreVolume(source, pausing, true, goOn);
  ASSERT_EQ(paused.end, RestoreResult::End::paused);
  EXPECT_EQ(volume->bytes, restoredVolume());
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
  EXPECT_TRUE(interruptedChanges(*disk).empty());  // this process has it open
  paused.rest.reset();
  EXPECT_EQ(interruptedChanges(*disk).size(), 1U);

  RestoreResult again = resume();
  ASSERT_EQ(again.end, RestoreResult::End::paused);
  EXPECT_EQ(again.rest->origin().between, "files");
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
  EXPECT_EQ(finishRestore(std::move(again), {volume, disk}).end, RestoreResult::End::done);
  EXPECT_EQ(Content(disk->bytes.begin(), disk->bytes.begin() + 512), Content(512, 0xD0));
  EXPECT_EQ(Content(disk->bytes.begin() + 512, disk->bytes.end()), Content(4096 - 512, 0xDD));
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
  EXPECT_EQ(keptChanges().size(), 1U);
}

TEST_F(RestoreTest, ADiskThatWasExchangedInThePauseIsRefusedAndTheRightOneCanGoOn) {
  RestorePlan pausing = plan();
  pausing.between = "files";
  // Alike to the last byte, but another disk.
  const auto otherDisk = std::make_shared<MemoryDevice>("other disk", 4096, 0xDD);
  const auto otherVolume = std::make_shared<MemoryDevice>("other volume", kVolume, 0xEE);
  for (const bool isVolume : {false, true}) {
    SCOPED_TRACE(isVolume ? "the volume" : "the disk");
    NumberedSource source;
    RestoreResult paused = restoreVolume(source, pausing, true, goOn);
    ASSERT_EQ(paused.end, RestoreResult::End::paused) << paused.failure.reason;
    otherVolume->bytes = volume->bytes;
    volume->calls.clear();
    const auto& wrongVolume = isVolume ? otherVolume : volume;
    const RestoreResult refused = finishRestore(std::move(paused), {wrongVolume, isVolume ? disk : otherDisk});
    EXPECT_EQ(refused.end, RestoreResult::End::failed);
    EXPECT_EQ(refused.failure.subject, isVolume ? "volume" : "disk");
    EXPECT_EQ(refused.failure.reason, "is another disk than before");
    EXPECT_EQ(refused.size, kVolume);
    for (const auto& device : {volume, disk, otherVolume, otherDisk}) EXPECT_THAT(device->calls, IsEmpty());
    EXPECT_EQ(otherVolume->bytes, restoredVolume());
    EXPECT_EQ(otherDisk->bytes, Content(4096, 0xDD));
    EXPECT_EQ(disk->bytes, Content(4096, 0xDD));

    EXPECT_THAT(interruptedLongChanges(), ElementsAre(refused.journal));
    RestoreResult again = resume();
    ASSERT_EQ(again.end, RestoreResult::End::paused) << again.failure.reason;
    EXPECT_EQ(finishRestore(std::move(again), {volume, disk}).end, RestoreResult::End::done);
    EXPECT_EQ(Content(disk->bytes.begin(), disk->bytes.begin() + 512), Content(512, 0xD0));
    EXPECT_THAT(interruptedLongChanges(), IsEmpty());
    std::fill_n(volume->bytes.begin(), 512, uint8_t{0xEE});
    std::fill_n(volume->bytes.begin() + kLastSector, 512, uint8_t{0xEE});
    disk->bytes.assign(4096, 0xDD);
    disk->calls.clear();
  }
}

TEST_F(RestoreTest, WithoutComparingOnlyTheStructuresAreReadBack) {
  volume->afterWrite = [](Content& bytes, uint64_t offset, size_t) {
    if (offset == 2 * kPiece) bytes[2 * kPiece + 77] ^= 1;
  };
  NumberedSource source;
  EXPECT_EQ(restore(source, false).end, RestoreResult::End::done);
}

TEST_F(RestoreTest, WhatWasWrittenWithoutHashesIsNotSaidToBeCompared) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source, false);
  const RestoreResult resumed = resume();
  EXPECT_EQ(resumed.end, RestoreResult::End::done) << resumed.failure.reason;
  EXPECT_FALSE(resumed.isCompared);
  EXPECT_EQ(volume->bytes, restoredVolume());
  NumberedSource another;
  EXPECT_TRUE(restore(another).isCompared);
}

TEST_F(RestoreTest, AFailedWriteSaysWhereAndKeepsTheJournal) {
  volume->failingWrite = 4;  // the third piece
  NumberedSource source;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.reason, std::string("at byte 8192: ") + std::strerror(EIO));
  EXPECT_FALSE(result.journal.empty());
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

TEST_F(RestoreTest, TheObserverStopsItAtASafePlace) {
  NumberedSource source;
  const RestoreResult result =
      restoreVolume(source, plan(), true, [](const RestoreProgress& progress) { return progress.done < 4 * kPiece; });
  EXPECT_EQ(result.end, RestoreResult::End::cancelled);
  EXPECT_EQ(result.size, 4 * kPiece);
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

TEST_F(RestoreTest, AnotherSourceIsRefused) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source);
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(interruptedLongChanges().at(0), failure);
  class OtherSource final : public ImageSource {
   public:
    OtherSource() { facts_.start = Content(512, 9); }
    ImagePiece next(std::span<uint8_t>) override { return {}; }
    std::optional<ImageFailure> moveTo(uint64_t) override { return std::nullopt; }
    uint64_t bytesRead() const override { return 0; }
  } other;
  const Content before = volume->bytes;
  const RestoreResult result = resumeRestore(std::move(journal), other, {volume, disk}, true, goOn);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.reason, "is not the source that the restore began with");
  EXPECT_EQ(volume->bytes, before);
}

TEST_F(RestoreTest, GivenUpTheStructuresAreAsTheyWere) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source);
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(interruptedLongChanges().at(0), failure);
  EXPECT_FALSE(abandonRestore(std::move(journal), {volume, disk}));
  EXPECT_EQ(Content(volume->bytes.begin(), volume->bytes.begin() + 512), Content(512, 0xEE));
  EXPECT_EQ(Content(volume->bytes.begin() + kLastSector, volume->bytes.end()), Content(512, 0xEE));
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
}

TEST_F(RestoreTest, ASectorThatSomebodyChangedOnTheDiskIsNotTakenBack) {
  NumberedSource source;
  source.failingPiece = 6;
  restore(source);
  disk->bytes[3] = 0x99;
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(interruptedLongChanges().at(0), failure);
  failure = abandonRestore(std::move(journal), {volume, disk});
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, "sector 0 was changed since");
  EXPECT_EQ(interruptedLongChanges().size(), 1U);
}

TEST_F(RestoreTest, IfTheFirstWriteFailsNothingIsWrittenAndNothingIsLeft) {
  volume->failingWrite = 1;
  NumberedSource source;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.state, kNothingWritten);
  EXPECT_EQ(result.journal, "");
  EXPECT_FALSE(result.isBlank);
  EXPECT_EQ(volume->bytes, Content(kVolume, 0xEE));
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
  EXPECT_THAT(keptChanges(), IsEmpty());
}

TEST_F(RestoreTest, WithoutAJournalForTheStructuresTheContentIsStillWritten) {
  const RestoreResult result = restoreWithLocked("journals");
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.state, "");  // not "nothing was written"
  EXPECT_TRUE(result.isBlank);
  EXPECT_THAT(interruptedLongChanges(), ElementsAre(result.journal));
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

TEST_F(RestoreTest, IfTheBackupCannotBeKeptTheJournalStays) {
  const RestoreResult result = restoreWithLocked("backups");
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_THAT(result.failure.state, HasSubstr("everything is written"));
  EXPECT_FALSE(result.isBlank);
  EXPECT_EQ(volume->bytes, restoredVolume());
  EXPECT_THAT(keptChanges(), IsEmpty());
  EXPECT_THAT(interruptedLongChanges(), ElementsAre(result.journal));
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_THAT(interruptedLongChanges(), IsEmpty());
  EXPECT_EQ(keptChanges().size(), 1U);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

}  // namespace
}  // namespace vorlix::test
