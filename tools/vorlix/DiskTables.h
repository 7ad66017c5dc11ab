// SPDX-License-Identifier: Apache-2.0
//
// A disk's tables as the commands look at them. Reading goes through the library's decoders but leaves its log alone.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

using Sector = std::array<uint8_t, 512>;

struct DiskTables {
  std::string device;  ///< as the user named it
  uint64_t size = 0;   ///< bytes
  uint64_t blockSize = 0;
  Sector sector0 = {};
  PartitionTable mbr = {};
  uint32_t activeSlot = 0;          ///< 0 when none is active
  std::optional<GPTHeader> header;  ///< absent without a GPT
  std::vector<GPTEntry> entries;    ///< what the disk holds of the table, at least four records when there is a GPT

  bool hasMBR() const { return mbr.signature == 0xAA55; }
};

/// Why sector 0 is no MBR that tells how the disk starts: there is none, or it is a volume's boot sector. Absent for
/// one that does.
std::optional<std::string> whyNoMBR(const DiskTables& disk);

/// Whether a GPT entry is in use.
bool isUsed(const GPTEntry& entry);

/// Reads a disk. Throws Failure when it cannot be opened or holds less than one sector.
DiskTables readTables(const std::string& device);

/// The MBR that the disk's GPT asks for.
PartitionTable hybridTable(const DiskTables& disk, uint32_t activeSlot);

/// Whether two slots have the same bytes on disk. Cylinder, head and sector of an LBA of 2^31 or more lose bits there.
bool sameSlot(const MBRPartitionEntry& one, const MBRPartitionEntry& other);

/// The first 512 bytes of a volume. Throws Failure.
Sector readBootSector(const std::string& volume);

/// What the boot sector of a volume says of its file system.
enum class BootSectorKind { ntfs, fat, empty, other };
BootSectorKind kindOf(const Sector& bootSector);

/// The little-endian hidden-sectors field of a FAT or NTFS boot sector.
uint32_t hiddenSectors(const Sector& bootSector);

}  // namespace vorlix::tool
