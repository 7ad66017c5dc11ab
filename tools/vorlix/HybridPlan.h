// SPDX-License-Identifier: Apache-2.0
//
// What a `hybrid` run would do to a disk, worked out by reading alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "DiskTables.h"

namespace vorlix::tool {

struct HybridRequest {
  std::string disk;
  std::string bootCode;           ///< path; empty where nothing is to be written
  uint32_t partition = 0;         ///< 0 to 4
  uint8_t type = 0;               ///< 0 leaves the type that the GPT asks for
  std::string volume;             ///< empty for slice `partition` of the disk
  std::optional<uint64_t> start;  ///< absent for the partition's first LBA
  bool guard = false;
};

struct HybridPlan {
  DiskTables disk;
  PartitionTable table = {};      ///< the MBR that the disk should have
  std::vector<uint8_t> bootCode;  ///< up to 446 bytes; empty where nothing is to be written
  bool patchesVolume = false;
  std::string volume;
  uint32_t start = 0;
  Sector bootSector = {};  ///< of the volume, as it is now

  /// Whether the library writes sector 0. It compares slots before they are packed, so that one with an LBA of 2^31 or
  /// more differs from its own copy on disk and is written every time.
  bool writesMBR() const;
  bool changesMBR() const { return newSector0() != disk.sector0; }
  bool changesHiddenSectors() const { return patchesVolume && hiddenSectors(bootSector) != start; }

  /// Sector 0 as it will be: unchanged where the library does not write it.
  Sector newSector0() const;

  /// The boot sector as it will be, but for the random bytes at 72 to 79.
  Sector newBootSector() const;
};

constexpr size_t kSerialOffset = 72;
constexpr size_t kSerialSize = 8;

/// Reads everything, checks everything that can be checked, opens nothing for writing. Throws Failure.
HybridPlan planHybrid(const HybridRequest& request);

/// An MBR type, "7" or "0x07"; 0 for an empty text. Throws Failure.
uint8_t parseMBRType(const std::string& text);

}  // namespace vorlix::tool
