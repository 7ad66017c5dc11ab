// SPDX-License-Identifier: Apache-2.0
//
// Interrupted restores: how they go on or are given up, and on which disks they do not.
#include <Vorlix/platform/KeptChange.h>
#include <gmock/gmock.h>

#include "tests/unit/support/RestoreFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
  const auto otherVolume = std::make_shared<MemoryDevice>("other volume", kVolumeSize, 0xEE);
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
    EXPECT_EQ(refused.size, kVolumeSize);
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

}  // namespace
}  // namespace vorlix::test
