// SPDX-License-Identifier: Apache-2.0
//
// Restores: the order on the medium, what is read back, and what is told of a failure.
#include <Vorlix/platform/KeptChange.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>

#include "tests/unit/support/RestoreFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

TEST_F(RestoreTest, TheContentComesFirstThenTheBootSectorsAndSector0Last) {
  NumberedSource source;
  size_t writesOfVolumeBeforeDisk = 0;
  disk->afterWrite = [&](Content&, uint64_t, size_t) { writesOfVolumeBeforeDisk = volume->calls.size(); };
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::done) << result.failure.reason;
  EXPECT_EQ(result.size, kVolumeSize);
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

TEST_F(RestoreTest, IfTheFirstWriteFailsNothingIsWrittenAndNothingIsLeft) {
  volume->failingWrite = 1;
  NumberedSource source;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.state, kNothingWritten);
  EXPECT_EQ(result.journal, "");
  EXPECT_FALSE(result.isBlank);
  EXPECT_EQ(volume->bytes, Content(kVolumeSize, 0xEE));
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

TEST_F(RestoreTest, StructuresThatWerePutBackDoNotSayThatNothingIsChanged) {
  volume->failingWrite = 11;  // the copy of the boot sector, after the boot sector itself
  NumberedSource source;
  const RestoreResult result = restore(source);
  EXPECT_EQ(result.end, RestoreResult::End::failed);
  EXPECT_EQ(result.failure.state, "what was written there was put back");
  EXPECT_TRUE(result.isBlank);
  EXPECT_EQ(result.size, kVolumeSize);
  EXPECT_EQ(disk->bytes, Content(4096, 0xDD));
  EXPECT_THAT(interruptedLongChanges(), ElementsAre(result.journal));
  EXPECT_EQ(resume().end, RestoreResult::End::done);
  EXPECT_EQ(volume->bytes, restoredVolume());
}

}  // namespace
}  // namespace vorlix::test
