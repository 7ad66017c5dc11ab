// SPDX-License-Identifier: Apache-2.0
//
// update_mbr_and_partition() with failing devices, unavailable locks, and disks with inconsistent headers.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/unit/support/HybridDisk.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kRefused =
    "Writing signature of aa55"
    "Type of first partition in LBA 0 is not 0xEE.  Writing this would cause the partition table to be unreadable. "
    "Aborting. line:590";
const std::string kInvalid =
    "Invalid GPT signature. Make sure this disk uses the GPT partitioning scheme.  Signature: ";

class HybridUpdateFaults : public HybridUpdate {
 protected:
  // Moves the header and entries to match another block size or entry LBA.
  void place(uint64_t blockSize, uint32_t entryCount, uint64_t entryLBA, uint64_t entriesAt) {
    const ByteVector entries = machine.bytes("disk0", 1024, 512);
    machine.setBytes("disk0", 512, ByteVector(1024, 0x3C));
    machine.setBytes("disk0", blockSize, headerBytes(entryCount, entryLBA));
    machine.setBytes("disk0", entriesAt, entries);
  }

  bool nothingLeftOpen() const { return machine.openCount() == 0 && keptOpenCount() == 0; }
};

// --------------------------------------------------------------------------------------------------- no GPT, no disk

TEST_F(HybridUpdateFaults, DeviceThatCannotBeOpenedIsReported) {
  machine.fail("disk0", Operation::open, EACCES);
  EXPECT_EQ(update(), -1);
  EXPECT_EQ(log(), kArguments + "Opening device disk0\nError opening device file.");
  EXPECT_THAT(machine.journal(), ElementsAre("open disk0 read: EACCES"));
}

TEST_F(HybridUpdateFaults, DiskWithoutEFIPARTIsRefusedAndTheSignatureIsLogged) {
  struct Case {
    ByteVector bytes;
    const char* text;
  };
  const Case cases[] = {
      {{0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}, "1122334455667788"},
      {{'E', 'F', 'I', ' ', 'P', 'A', 'R', 't'}, "7452415020494645"},
      {{0xEF, 0xCD, 0xAB, 0x00, 0x00, 0x00, 0x00, 0x00}, "00abcdef"},
      {{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, "00000000"},
  };
  for (const Case& test : cases) {
    machine.setBytes("disk0", 512, test.bytes);
    forgetLog();
    EXPECT_EQ(update(3, 0x0C), -1);
    EXPECT_EQ(log(), kArguments + kReading + kInvalid + test.text);
    EXPECT_THAT(machine.writes(), IsEmpty());
    EXPECT_TRUE(nothingLeftOpen());
  }
}

TEST_F(HybridUpdateFaults, TinyDiskHasNoGPT) {
  for (const uint64_t size : {0U, 100U, 511U, 512U, 519U}) {
    machine.addDisk("tiny", size, 512);
    forgetLog();
    EXPECT_EQ(update_mbr_and_partition("tiny", bootCodePath.c_str(), 3, 0, "disk0s3", 0, 0), -1) << size;
    EXPECT_THAT(log(), EndsWith(kInvalid + "00000000")) << size;
    EXPECT_THAT(machine.writes(), IsEmpty());
    EXPECT_TRUE(nothingLeftOpen());
  }
}

TEST_F(HybridUpdateFaults, UnknownBlockSizeReadsTheHeaderFromByteZeroAndIsRefused) {
  machine.hideBlockSize("disk0");
  machine.setBytes("disk0", 0, {1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(update(), -1);
  EXPECT_EQ(log(), kArguments +
                       "Opening device disk0\n"
                       "Reading BIOS partition table line:753\n"
                       "Getting block size for device disk0"
                       "Error getting number. Unknown volume size line:215"
                       "Found blockSize: 0"
                       "Blocksize is 0\n"
                       "Reading GPT Header\n" +
                       kInvalid + "807060504030201");  // at least eight digits
  EXPECT_THAT(machine.writes(), IsEmpty());
}

TEST_F(HybridUpdateFaults, UnknownBlockSizeWithEFIPARTAtByteZeroLeavesSectorZeroUntouched) {
  machine.hideBlockSize("disk0");
  ByteVector bytes = headerBytes(4, 2);
  bytes.resize(446);
  machine.setBytes("disk0", 0, bytes);
  sectorBefore = machine.bytes("disk0", 0, 512);
  EXPECT_EQ(update(0), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_THAT(log(), EndsWith(kRefused));
}

// ----------------------------------------------------------------------------------------------- locations on the disk

TEST_F(HybridUpdateFaults, BlockSizeLocatesHeaderAndEntries) {
  const ByteVector disk = machine.bytes("disk0", 0, 16384);
  machine.addDisk("disk0", uint64_t{2097152} * 512, 4096);
  machine.setBytes("disk0", 0, disk);
  place(4096, 4, 3, 12288);
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
  EXPECT_THAT(log(), HasSubstr("Found blockSize: 4096Blocksize is 4096\n"));
}

TEST_F(HybridUpdateFaults, HeaderLocatesTheEntries) {
  place(512, 4, 2000001, uint64_t{2000001} * 512);
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
}

TEST_F(HybridUpdateFaults, EntriesBeyondTheCountAreIgnored) {
  place(512, 2, 2, 1024);
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, kNoSlot, kNoSlot}));
}

TEST_F(HybridUpdateFaults, HugeEntryCountIsReadUpToTheEndOfTheDisk) {
  place(512, 0xFFFFFFFF, 2, 1024);
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(slots(), joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot}));
  EXPECT_TRUE(nothingLeftOpen());
}

TEST_F(HybridUpdateFaults, HeaderWithoutEntriesLeavesSectorZeroUntouched) {
  place(512, 0, 2, 1024);
  EXPECT_EQ(update(), 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_THAT(log(), HasSubstr(kRefused));
}

TEST_F(HybridUpdateFaults, EntriesPastTheEndOfTheDiskLeaveSectorZeroUntouched) {
  // The last LBA's product is 2^64 + 1024. If it wrapped around, the entries at byte 1024 would be found.
  constexpr uint64_t kLBAs[] = {2097152, 0xFFFFFFFF, 0x003FFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF, 0x0080000000000002};
  for (const uint64_t lba : kLBAs) {
    machine.setBytes("disk0", 512, headerBytes(128, lba));
    forgetLog();
    EXPECT_EQ(update(), 0) << lba;
    EXPECT_TRUE(sectorUntouched()) << lba;
    EXPECT_THAT(log(), HasSubstr(kRefused + kPatchStarts)) << lba;
    EXPECT_TRUE(nothingLeftOpen()) << lba;
  }
}

TEST_F(HybridUpdateFaults, PartitionPastTheEndOfTheDiskIsMirroredUnchanged) {
  setEntries({entryBytes(kEFISystemType, 40, 409639), entryBytes(kHFSType, 0xFFFFFFFFFFFFFFFF, 0)});
  EXPECT_EQ(update(0), 0);
  EXPECT_EQ(machine.bytes("disk0", 462, 16),
            (ByteVector{0x00, 0x00, 0x00, 0x00, 0xAF, 0x00, 0x01, 0x00,     // -1: 0/0/0; 0: 0/0/1
                        0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x00, 0x00, 0x00}));  // 0 - 0xFFFFFFFF + 1 = 2
}

// ----------------------------------------------------------------------------------------------------------- locks

TEST_F(HybridUpdateFaults, DiskInUseIsWrittenUnderASharedLockWithoutAQuestion) {
  machine.lockElsewhere("disk0", DeviceLock::shared);
  OutputCapture output(STDOUT_FILENO);
  const int result = update();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(machine.writes(), bothWritten());
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + kChecking + kProtectiveDiffers + kUpdating + kTable + kOpening +
                       "Failed to open device.Opening device with shared lock." + fileLog() + kPatch);
}

TEST_F(HybridUpdateFaults, LockedDiskIsReadButNotWritten) {
  machine.lockElsewhere("disk0", DeviceLock::exclusive);
  EXPECT_EQ(update(), -1);  // because of the boot sector
  EXPECT_TRUE(sectorUntouched());
  EXPECT_TRUE(bootSectorUntouched());
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_TRUE(nothingLeftOpen());
  EXPECT_EQ(log(), kArguments + kReading + kBuilding + kChecking + kProtectiveDiffers + kUpdating + kTable + kOpening +
                       "Failed to open device.Opening device with shared lock."
                       "Error trying to open device %{errono}d. Aborting." +
                       kPatchStarts +
                       "error writing disk0s3\n"
                       "error while opening file to write line:632"
                       "could not update start sector.\n");
}

// ---------------------------------------------------------------------------------------------------------- faults

TEST_F(HybridUpdateFaults, FailedOpenOfSectorZeroIsNotInTheResult) {
  machine.fail("disk0", Operation::open, EACCES, 1);  // the open for reading succeeds
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(machine.writes(), bootSectorWritten);
  EXPECT_THAT(log(), HasSubstr("Error trying to open device %{errono}d. Aborting." + kPatch));
}

TEST_F(HybridUpdateFaults, FailedWriteOfSectorZeroIsNotInTheResult) {
  machine.fail("disk0", Operation::write, EIO);
  OutputCapture errors(STDERR_FILENO);
  const int result = update();
  EXPECT_EQ(errors.text(), "");
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(sectorUntouched());
  EXPECT_TRUE(bootSectorPatched());
  EXPECT_THAT(log(), EndsWith(fileLog() + kPatch));
  EXPECT_TRUE(nothingLeftOpen());
}

TEST_F(HybridUpdateFaults, FailedSyncOfSectorZeroIsNotInTheResult) {
  machine.fail("disk0", Operation::sync, EIO);
  EXPECT_EQ(update(), 0);
  EXPECT_TRUE(bootSectorPatched());
  EXPECT_THAT(log(), EndsWith(fileLog() + kPatch));
}

TEST_F(HybridUpdateFaults, FailedOpenOfTheBootSectorIsAFailureAfterSectorZeroIsWritten) {
  machine.fail("disk0s3", Operation::open, EACCES);
  EXPECT_EQ(update(), -1);
  EXPECT_EQ(machine.writes(), sectorWritten);
  EXPECT_TRUE(bootSectorUntouched());
  EXPECT_THAT(log(), EndsWith(kPatchStarts + "error writing disk0s3\n"
                                             "error while opening file to write line:632"
                                             "could not update start sector.\n"));
}

TEST_F(HybridUpdateFaults, FailedWriteOfTheBootSectorIsAFailure) {
  struct Case {
    Operation operation;
    unsigned successes;
    std::string log;
  };
  const std::string first = "writing out 64 83 18 00Updating start sector offset on disk0s3\n";
  const Case cases[] = {
      {Operation::write, 0, first}, {Operation::write, 1, kPatching}, {Operation::sync, 0, kPatching}};
  for (const Case& test : cases) {
    machine.fail("disk0s3", Operation::write, 0);
    machine.fail("disk0s3", test.operation, EIO, test.successes);
    forgetLog();
    OutputCapture errors(STDERR_FILENO);
    const int result = update();
    EXPECT_THAT(errors.text(), HasSubstr(std::strerror(EIO)));
    EXPECT_EQ(result, -1);
    EXPECT_THAT(log(), EndsWith(kPatchStarts + test.log + "could not update start sector.\n"));
    EXPECT_TRUE(nothingLeftOpen());
  }
}

TEST_F(HybridUpdateFaults, UnreadableDiskIsRefused) {
  machine.fail("disk0", Operation::read, EIO);
  EXPECT_EQ(update(), -1);
  EXPECT_EQ(log(), kArguments + kReading + kInvalid + "00000000");
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_TRUE(nothingLeftOpen());
}

TEST_F(HybridUpdateFaults, FailedReadNeverPutsAWrongMBROnTheDisk) {
  place(512, 4, 2000001, uint64_t{2000001} * 512);  // far from the header, so the entries need a separate read
  const ByteVector right = joined({kEFISlot, kHFSSlot, active(kDataSlot), kNoSlot});
  const ByteVector before = slots();
  std::vector<std::string> outcomes;
  for (unsigned successes = 0; successes < 8; ++successes) {
    machine.setBytes("disk0", 0, sectorBefore);
    machine.fail("disk0", Operation::read, EIO, successes);
    forgetLog();
    const int result = update();
    const ByteVector after = slots();
    EXPECT_TRUE(after == before || after == right) << successes;
    EXPECT_TRUE(nothingLeftOpen()) << successes;
    if (after == right) outcomes.push_back("written");
    if (after == before && result == -1) outcomes.push_back("no header");
    if (after == before && log().find(kRefused) != std::string::npos) outcomes.push_back("no entries");
  }
  EXPECT_THAT(outcomes, AllOf(Contains("no header"), Contains("no entries"), Contains("written")));
}

}  // namespace
}  // namespace vorlix::test
