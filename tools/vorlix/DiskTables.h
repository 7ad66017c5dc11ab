// SPDX-License-Identifier: Apache-2.0
//
// A disk's tables as the commands look at them. Reading goes through the library's decoders but leaves its log alone.
#pragma once

#include <Vorlix/BootSectors.h>
#include <Vorlix/GPTCheck.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DeviceFile.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix::tool {

struct DiskTables {
  std::string device;                      ///< as the user named it
  std::optional<DeviceIdentity> identity;  ///< of the handle that it was read through
  uint64_t size = 0;                       ///< bytes
  uint64_t blockSize = 0;
  Sector sector0 = {};
  PartitionTable mbr = {};
  uint32_t activeSlot = 0;          ///< 0 when none is active
  std::optional<GPTHeader> header;  ///< absent without a GPT
  uint64_t headerLBA = 0;           ///< where it stands: 1, or the disk's last block if the first one is gone
  std::vector<GPTEntry> entries;    ///< what the disk holds of the table, at least four records when there is a GPT
  std::vector<GPTFinding> damage;   ///< what is wrong with the GPT, or with there being none

  bool hasMBR() const { return mbr.signature == 0xAA55; }
  bool fromBackup() const { return header && headerLBA != 1; }
};

/// Why sector 0 is no MBR that tells how the disk starts: there is none, or it is a volume's boot sector. Absent for
/// one that does.
std::optional<std::string> whyNoMBR(const DiskTables& disk);

/// Reads a disk. Throws Failure when it cannot be opened or holds less than one sector.
DiskTables readTables(const std::string& device);

/// The same through an open handle; `device` is its name.
DiskTables readTables(DeviceHandle& handle, const std::string& device);

/// The same for looks at a disk beside the one that a command is about: absent if it cannot be read, and without a word
/// on interrupted changes.
std::optional<DiskTables> quietlyReadTables(const std::string& device);

/// For commands that write to a disk: throws Failure if its GPT is damaged, unless `force`, which says on standard
/// error what is written to all the same. A disk without a GPT passes.
void requireSoundGPT(const DiskTables& disk, bool force);

/// The tables of the disk that a slice is on. Absent for a whole disk, and for a volume that is on no such disk.
std::optional<DiskTables> tablesAround(const std::string& slice);

/// requireSoundGPT() for the disk that a slice is on. A volume that is on no such disk passes.
void requireSoundGPTOf(const std::string& slice, bool force);

/// Says on standard error, once for a disk, that the slices of `device`, open as `handle`, are those of the GPT's
/// second copy. @param known  tables that were read already; they are taken if they are of that disk.
void mentionLostHeader(const std::string& device, DeviceHandle& handle, const DiskTables* known = nullptr);

/// Why slice N of a disk was not found: the disk's table does not have it, or the disk ends before it. Absent where
/// there is no such reason.
std::optional<std::string> whySliceIsMissing(const std::string& device);

/// Says on standard error that a slice of a disk image ends past the end of the image, where it does.
void mentionTruncation(const std::string& device);

/// Reads bytes whole. Throws Failure.
void readWhole(DeviceHandle& handle, const std::string& device, std::span<uint8_t> bytes, uint64_t offset);

/// The first 512 bytes of a volume. Throws Failure.
Sector readBootSector(DeviceHandle& handle, const std::string& volume);

}  // namespace vorlix::tool
