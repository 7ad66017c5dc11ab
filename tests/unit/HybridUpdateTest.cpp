// SPDX-License-Identifier: Apache-2.0
//
// update_mbr_and_partition(): all branches, with the complete log and all changes to the disk.
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/unit/support/HybridDisk.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// --------------------------------------------------------------------------------------------------------- writing

TEST_F(HybridUpdate, WritesTheHybridMBRAndPatchesTheBootSector) {
  const ByteVector gptBefore = machine.bytes("disk0", 512, 64 * 1024 - 512);
  OutputCapture output(STDOUT_FILENO);
  const int result = update();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
  EXPECT_EQ(machine.bytes("disk0", 0, 446), ByteVector(446, 0xB0));
  EXPECT_THAT(machine.bytes("disk0", 510, 2), ElementsAre(0x55, 0xAA));
  EXPECT_EQ(machine.bytes("disk0", 512, 64 * 1024 - 512), gptBefore);
  EXPECT_TRUE(bootSectorPatched());
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + kChecking + kProtectiveDiffers + kUpdating + kTable + kOpening +
                       fileLog() + kPatch);
}

TEST_F(HybridUpdate, FourUsedEntriesFillFourSlots) {
  setEntries({entryBytes(kEFISystemType, 40, 409639), entryBytes(kHFSType, 409640, 1606499),
              entryBytes(kBasicDataType, 1606500, 2008124), entryBytes(kAPFSType, 2008125, 2088449),
              entryBytes(kHFSType, 2088450, 2097118)});  // the fifth entry has no slot
  EXPECT_EQ(update(4), 0);
  const ByteVector apfs = {0x80, 0x00, 0x01, 0x7D, 0xFF, 0xFE, 0x3F, 0x81,   // 125/0/1 to 129/254/63
                           0x3D, 0xA4, 0x1E, 0x00, 0xC5, 0x39, 0x01, 0x00};  // 0x1EA43D = 2008125, 0x139C5 = 80325
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, kDataSlot, apfs}));
}

TEST_F(HybridUpdate, ReadsAndClosesBeforeItWrites) {
  EXPECT_EQ(update(), 0);
  EXPECT_THAT(journalButReads(),
              ElementsAre("open disk0 read", "session open", "describe disk0", "session close", "close disk0",  //
                          "open disk0 write exclusive", "write disk0 0+512", "sync disk0", "close disk0",       //
                          "open disk0s3 write exclusive", "write disk0s3 28+4", "write disk0s3 72+8", "sync disk0s3",
                          "close disk0s3"));
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(HybridUpdate, EqualMBRIsNotRewrittenButTheBootSectorIsPatched) {
  setSlots({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot});
  EXPECT_EQ(update(), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_TRUE(bootSectorPatched());
  EXPECT_EQ(machine.writes(), bootSectorWritten);
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + kChecking + kEqual + kPatch);
}

TEST_F(HybridUpdate, SecondRunFindsNothingToWriteInSectorZero) {
  EXPECT_EQ(update(), 0);
  machine.clearJournal();
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(machine.writes(), bootSectorWritten);
}

TEST_F(HybridUpdate, OnlySlotsAreComparedAndNotBootCodeOrSignature) {
  setSlots({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot});
  machine.setBytes("disk0", 510, {0x00, 0x00});
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(machine.writes(), bootSectorWritten);
}

TEST_F(HybridUpdate, VerboseFlagIsClearedOnEntry) {
  verbose_flag = 1;
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(verbose_flag, 0);
  verbose_flag = 1;
  EXPECT_EQ(update(0, 7), -1);  // arguments are checked after the flag is cleared
  EXPECT_EQ(verbose_flag, 0);
}

TEST_F(HybridUpdate, StartSectorIsWrittenAsGivenAndLoggedAsSigned) {
  EXPECT_EQ(update_mbr_and_partition("disk0", bootCodePath.c_str(), 3, 0, "disk0s3", 0, 0xFFFFFFFE), 0);
  EXPECT_THAT(machine.bytes("disk0s3", 28, 4), ElementsAre(0xFE, 0xFF, 0xFF, 0xFF));
  EXPECT_THAT(log(), HasSubstr("start sector is -2\nwriting out FE FF FF FF"));
}

TEST_F(HybridUpdate, LongDevicePathIsUsedInFull) {
  const std::string name = "/dev/disk" + std::string(60, '7');
  machine.addDisk(name.substr(5), 1 << 20, 512);
  machine.setBytes(name, 512, headerBytes());
  machine.setBytes(name, 1024, entryBytes(kEFISystemType, 40, 409639));
  EXPECT_EQ(update_mbr_and_partition(name.c_str(), bootCodePath.c_str(), 0, 0, "disk0s3", 0, 0), 0);
  EXPECT_EQ(machine.bytes(name, 446, 16), kEFISlot);
  EXPECT_THAT(log(), AllOf(HasSubstr("Opening device " + name + "\n"), EndsWith(fileLog())));
}

// -------------------------------------------------------------------------------------------- partition number and ID

TEST_F(HybridUpdate, IDWithoutPartitionNumberIsRefusedBeforeTheDeviceIsOpened) {
  for (const uint32_t id : {0x07U, 0x100U}) {  // the missing number is reported first
    forgetLog();
    EXPECT_EQ(update(0, id), -1);
    EXPECT_EQ(log(), kArguments + "Can't change parition ID: no partition number specified.");
    EXPECT_THAT(machine.journal(), IsEmpty());
  }
}

TEST_F(HybridUpdate, IDAbove255IsRefusedBeforeTheDeviceIsOpened) {
  for (const uint32_t id : {0x100U, 0x107U, 0xFFFFFFFFU}) {
    for (const int guard : {0, 1}) {
      forgetLog();
      EXPECT_EQ(update(3, id, guard), -1);
      EXPECT_EQ(log(), kArguments + "Can't change parition ID: id must be between 0x00 and 0xFF.");
      EXPECT_THAT(machine.journal(), IsEmpty());
    }
  }
}

TEST_F(HybridUpdate, IDBecomesTheTypeOfTheNamedSlot) {
  for (const uint32_t id : {0x0CU, 0x01U, 0xFFU}) {
    EXPECT_EQ(update(3, id), 0);
    EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, ofType(active(kDataSlot), static_cast<uint8_t>(id)), kNoSlot}));
  }
}

TEST_F(HybridUpdate, IDIsAlsoSetInAnEmptySlot) {
  EXPECT_EQ(update(4, 0x0C), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, kDataSlot, ofType(kNoSlot, 0x0C)}));
  EXPECT_TRUE(bootSectorPatched());
}

TEST_F(HybridUpdate, IDThatReplacesTheProtectiveTypeOfSlotOneLeavesSectorZeroUntouched) {
  EXPECT_EQ(update(1, 0x07), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_THAT(log(), HasSubstr("Aborting. line:590" + kPatchStarts));
  EXPECT_TRUE(bootSectorPatched());
}

TEST_F(HybridUpdate, PartitionNumberMovesTheActiveFlag) {
  setSlots({kEFISlot, active(kHFSSlot), kDataSlot, kNoSlot});
  EXPECT_EQ(update(3), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
  EXPECT_THAT(log(), HasSubstr("Comparing partition index 1flag is different: 0 - 128\nMBR needs to be updated.\n"));
}

TEST_F(HybridUpdate, WithoutPartitionNumberTheActiveSlotStaysActiveAndNothingIsPatched) {
  setSlots({active(kProtectiveSlot), active(kNoSlot), kNoSlot, kNoSlot});  // the last active slot counts
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, active(kHFSSlot), kDataSlot, kNoSlot}));
  EXPECT_TRUE(bootSectorUntouched());
  EXPECT_EQ(machine.writes(), sectorWritten);
  EXPECT_THAT(log(), EndsWith(fileLog()));
}

TEST_F(HybridUpdate, WithoutPartitionNumberOrActiveSlotNoneIsMarked) {
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, kDataSlot, kNoSlot}));
}

TEST_F(HybridUpdate, PartitionNumberAboveFourMarksAndPatchesNothing) {
  for (const uint32_t partition : {5U, 0xFFFFFFFFU}) {
    setSlots({kProtectiveSlot, active(kNoSlot), kNoSlot, kNoSlot});  // the argument overrides the disk's active slot
    machine.clearJournal();
    EXPECT_EQ(update(partition), 0);
    EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, kDataSlot, kNoSlot}));
    EXPECT_EQ(machine.writes(), sectorWritten);
  }
}

TEST_F(HybridUpdate, PartitionNumbersOneToFourPatch) {
  for (uint32_t partition = 1; partition <= 4; ++partition) {
    machine.clearJournal();
    EXPECT_EQ(update(partition), 0);
    EXPECT_EQ(machine.writes(), bothWritten()) << partition;
  }
}

// ----------------------------------------------------------------------------------------------------------- guard

TEST_F(HybridUpdate, GuardSwitchWritesAGuardMBRWithoutTypeChangeOrPatch) {
  EXPECT_EQ(update(3, 0x0C, 1), 0);
  EXPECT_EQ(slots(), joined({kGuardSlot, kNoSlot, kNoSlot, kNoSlot}));
  EXPECT_EQ(machine.writes(), sectorWritten);
  EXPECT_TRUE(bootSectorUntouched());
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + "Changing to standard guard MBR line:419" + kChecking +
                       "Comparing partition index 0"
                       "start_head is different: 254 - 0\n"
                       "start_sector is different: 63 - 2\n"
                       "start_track is different:  1023 - 0\n" +
                       kUpdating +
                       " 1: EE 1023 254  63 - 1023 254  63 [         1 -    2097151]\n"
                       " 2: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       " 3: 00    0   0   0 -    0   0   0 [         0 -          0]\n"
                       " 4: 00    0   0   0 -    0   0   0 [         0 -          0]\n" +
                       kOpening + fileLog());
}

TEST_F(HybridUpdate, EqualGuardMBRWritesNothing) {
  setSlots({kGuardSlot, kNoSlot, kNoSlot, kNoSlot});
  EXPECT_EQ(update(1, 0x07, 1), 0);
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + "Changing to standard guard MBR line:419" + kChecking + kEqual);
}

TEST_F(HybridUpdate, AnyOtherSwitchValueWritesTheHybridMBRWithoutTypeChangeOrPatch) {
  for (const int guard : {2, -1}) {
    setSlots({kProtectiveSlot, kNoSlot, kNoSlot, kNoSlot});
    machine.clearJournal();
    EXPECT_EQ(update(3, 0x0C, guard), 0);
    EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
    EXPECT_EQ(machine.writes(), sectorWritten);
  }
}

// ---------------------------------------------------------------------------------------------- sector 0 not written

TEST_F(HybridUpdate, FirstEntryThatIsNotTheEFISystemPartitionIsRefused) {
  setEntries({entryBytes(kHFSType, 40, 409639)});
  EXPECT_EQ(update(), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_EQ(machine.writes(), bootSectorWritten);
  EXPECT_THAT(log(), HasSubstr(fileLog() +
                               "Type of first partition in LBA 0 is not 0xEE.  Writing this would cause the partition "
                               "table to be unreadable. Aborting. line:590" +
                               kPatch));
}

TEST_F(HybridUpdate, WithoutBootCodePathSectorZeroIsUntouchedAndTheBootSectorIsPatched) {
  EXPECT_EQ(update_mbr_and_partition("disk0", nullptr, 3, 0, "disk0s3", 0, 1606500), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_EQ(machine.writes(), bootSectorWritten);
  EXPECT_EQ(keptOpenCount(), 1U);  // the whole disk stays open
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + kChecking + kProtectiveDiffers + kUpdating + kTable + kOpening +
                       "Device openedNo MBR file. Aborting" + kPatch);
}

TEST_F(HybridUpdate, EqualMBRNeedsNoBootCodeFile) {
  setSlots({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot});
  EXPECT_EQ(update_mbr_and_partition("disk0", (folder / "missing").c_str(), 3, 0, "disk0s3", 0, 1606500), 0);
  EXPECT_EQ(machine.writes(), bootSectorWritten);
}

using HybridUpdateDeathTest = HybridUpdate;

TEST_F(HybridUpdateDeathTest, MissingBootCodeFileEndsTheProcessBeforeTheBootSectorIsPatched) {
  const std::string missing = folder / "missing";
  EXPECT_EXIT(update_mbr_and_partition("disk0", missing.c_str(), 3, 0, "disk0s3", 0, 1606500),
              testing::ExitedWithCode(255), "^$");
  EXPECT_THAT(log(), EndsWith(kTable + kOpening + "Device openedOpening MBR file at path " + missing +
                              "Error opening MBR file. Aborting"));
}

}  // namespace
}  // namespace vorlix::test
