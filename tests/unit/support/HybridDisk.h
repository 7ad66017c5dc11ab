// SPDX-License-Identifier: Apache-2.0
//
// A GPT disk whose hybrid MBR is calculated by hand, and the log of update_mbr_and_partition() for it.
#pragma once

#include <string>
#include <vector>

#include "DiskBytes.h"
#include "FlatFixture.h"

namespace vorlix::test {

/// Slots as 16 bytes: flag, start head, start sector and cylinder, type, end head, end sector and cylinder, LBA, size.
inline const ByteVector kEFISlot = {
    0x00, 0x00, 0x02, 0x00, 0xEE, 0x7F, 0x0E, 0x19,   // 0/0/2 to 25/127/14
    0x01, 0x00, 0x00, 0x00, 0x27, 0x40, 0x06, 0x00};  // from 1, 0x64027 = 409639 sectors
inline const ByteVector kHFSSlot = {
    0x00, 0x7F, 0x0F, 0x19, 0xAF, 0xFE, 0x3F, 0x63,   // 25/127/15 to 99/254/63
    0x28, 0x40, 0x06, 0x00, 0x3C, 0x43, 0x12, 0x00};  // 0x64028 = 409640, 0x12433C = 1196860
inline const ByteVector kDataSlot = {
    0x00, 0x00, 0x01, 0x64, 0x07, 0xFE, 0x3F, 0x7C,   // 100/0/1 to 124/254/63
    0x64, 0x83, 0x18, 0x00, 0xD9, 0x20, 0x06, 0x00};  // 0x188364 = 1606500, 0x620D9 = 401625
inline const ByteVector kGuardSlot = {
    0x00, 0xFE, 0xFF, 0xFF, 0xEE, 0xFE, 0xFF, 0xFF,   // 1023/254/63 twice
    0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x1F, 0x00};  // from 1, 0x1FFFFF = 2097151 sectors
/// The slot that partitioning tools write for a new GPT: 0/0/2 to 1023/254/63, LBA 1, the rest of the disk.
inline const ByteVector kProtectiveSlot = {0x00, 0x00, 0x02, 0x00, 0xEE, 0xFE, 0xFF, 0xFF,
                                           0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x1F, 0x00};
inline const ByteVector kNoSlot(16, 0);

inline ByteVector active(ByteVector slot) {
  slot[0] = 0x80;
  return slot;
}
inline ByteVector ofType(ByteVector slot, uint8_t type) {
  slot[4] = type;
  return slot;
}

/// The log of a call on the disk below, in parts.
inline const std::string kArguments = "Updating MBR and PartitionNTFS Partition: disk0s3";
inline const std::string kReading =
    "Opening device disk0\n"
    "Reading BIOS partition table line:753\n"
    "Getting block size for device disk0Found blockSize: 512"
    "Blocksize is 512\n"
    "Reading GPT Header\n";
inline const std::string kBuilding =
    "Reading GPT\n"
    "Reading GPT. line:327Setting signature to aa55";
inline const std::string kChecking =
    "Checking MBR to see if it needs to be updated.\n"
    "Comparing partition tables. line:228";
inline const std::string kProtectiveDiffers =
    "Comparing partition index 0"
    "lba size is different: 409639 - 2097151\n"
    "end_head is different:  127 - 254\n"
    "end_sector is different: 14 - 63\n"
    "end_track is different: 25 - 1023\n";
inline const std::string kUpdating =
    "MBR needs to be updated.\n"
    "writing bios\n"
    "\n\n line:468"
    " ----------------------------- BIOS Partition Table--------------------------\n line:469"
    " #: id  cyl  hd sec -  cyl  hd sec [     start -       size]\n line:470"
    "------------------------------------------------------------------------\n line:471";
inline const std::string kTable =
    " 1: EE    0   0   2 -   25 127  14 [         1 -     409639]\n"
    " 2: AF   25 127  15 -   99 254  63 [    409640 -    1196860]\n"
    "* 3: 07  100   0   1 -  124 254  63 [   1606500 -     401625]\n"
    " 4: 00    0   0   0 -    0   0   0 [         0 -          0]\n";
inline const std::string kEqual =
    "Comparing partition index 0Comparing partition index 1Comparing partition index 2Comparing partition index 3"
    "MBR does not need to be updated\n";
inline const std::string kOpening =
    "Writing new GPT on device disk0."
    "Opening device with exclusive lock.";
inline const std::string kPatchStarts =
    "Updating the FAT/NTFS start sector offset...\n"
    "start sector is 1606500\n";
inline const std::string kPatching =
    "writing out 64 83 18 00"
    "Updating start sector offset on disk0s3\n"
    "Updating UUID line:652\n";
inline const std::string kPatch = kPatchStarts + kPatching + "Update sector offset done.\n";

class HybridUpdate : public FlatTest {
 protected:
  HybridUpdate() {
    machine.addDisk("disk0", uint64_t{2097152} * 512, 512);
    machine.addSlice("disk0", 3, 1606500, 401625);
    machine.setBytes("disk0", 0, ByteVector(64 * 1024, 0x3C));
    machine.setBytes("disk0", 512, headerBytes());
    machine.setBytes("disk0", 1024, ByteVector(128 * 128));
    setEntries({entryBytes(kEFISystemType, 40, 409639), entryBytes(kHFSType, 409640, 1606499),
                entryBytes(kBasicDataType, 1606500, 2008124), unusedEntryBytes()});
    setSlots({kProtectiveSlot, kNoSlot, kNoSlot, kNoSlot});
    machine.setBytes("disk0s3", 0, ByteVector(4096, 0x3C));
    bootCodePath = makeFile("boot-code", ByteVector(446, 0xB0));
  }

  void setEntries(const std::vector<ByteVector>& entries) { machine.setBytes("disk0", 1024, joined(entries)); }
  void setSlots(const std::vector<ByteVector>& slots) {
    machine.setBytes("disk0", 446, joined(slots));
    machine.setBytes("disk0", 510, {0x55, 0xAA});
    sectorBefore = machine.bytes("disk0", 0, 512);
  }

  int update(uint32_t partition = 3, uint32_t id = 0, int guard = 0) {
    return update_mbr_and_partition("disk0", bootCodePath.c_str(), partition, id, "disk0s3", guard, 1606500);
  }

  ByteVector slots() const { return machine.bytes("disk0", 446, 64); }
  bool sectorUntouched() const { return machine.bytes("disk0", 0, 512) == sectorBefore; }
  bool bootSectorPatched() const {
    return machine.bytes("disk0s3", 28, 4) == ByteVector{0x64, 0x83, 0x18, 0x00} &&
           machine.bytes("disk0s3", 72, 8) != ByteVector(8, 0x3C) &&
           machine.bytes("disk0s3", 0, 28) == ByteVector(28, 0x3C) &&
           machine.bytes("disk0s3", 32, 40) == ByteVector(40, 0x3C) &&
           machine.bytes("disk0s3", 80, 4016) == ByteVector(4016, 0x3C);
  }
  bool bootSectorUntouched() const { return machine.bytes("disk0s3", 0, 4096) == ByteVector(4096, 0x3C); }

  std::string fileLog() const {
    return "Device openedOpening MBR file at path " + bootCodePath + "Writing signature of aa55";
  }
  const std::vector<std::string> sectorWritten = {"write disk0 0+512", "sync disk0"};
  const std::vector<std::string> bootSectorWritten = {"write disk0s3 28+4", "write disk0s3 72+8", "sync disk0s3"};
  std::vector<std::string> bothWritten() const {
    std::vector<std::string> result = sectorWritten;
    result.insert(result.end(), bootSectorWritten.begin(), bootSectorWritten.end());
    return result;
  }

  std::string bootCodePath;
  ByteVector sectorBefore;
};

}  // namespace vorlix::test
