// SPDX-License-Identifier: Apache-2.0
//
// What a `hybrid` run does to a disk: worked out by reading alone, through the handles that a run then writes to.
#pragma once

#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DiskTables.h"

namespace vorlix::tool {

struct HybridRequest {
  std::string disk;
  std::string bootCode;           ///< path; empty to keep the disk's, or to write our own where it has none
  uint32_t partition = 0;         ///< 0 to 4
  uint8_t type = 0;               ///< 0 leaves the type that the GPT asks for
  std::string volume;             ///< empty for slice `partition` of the disk
  std::optional<uint64_t> start;  ///< absent for the partition's first LBA
  bool guard = false;
  bool keepsBootCode = false;  ///< write no boot code of our own
  bool force = false;          ///< go on where the content, the type or the GPT is odd
  bool writes = false;         ///< open for writing; else nothing is
};

/// Whose boot code sector 0 will have.
enum class BootCodeOrigin { file, disk, own };

/// A second boot sector of the volume, in one of the places where one may stand.
struct SecondBootSector {
  uint64_t offset = 0;  ///< bytes from the volume's start
  Sector now = {};
  bool isCopy = false;  ///< of the first one, but for the fields that are patched; only a copy is brought along
};

/// The volume that is to start.
struct VolumePlan {
  std::string name;
  std::shared_ptr<DeviceHandle> handle;
  uint32_t start = 0;      ///< for the hidden-sectors field
  bool isPatched = false;  ///< its boot sector has that field
  Sector before = {};
  Sector after = {};
  std::vector<SecondBootSector> seconds;
  std::optional<std::string> oddity;  ///< why it is hardly the Windows that is to start
  bool isElsewhere = false;           ///< not on the disk, as far as the system tells

  /// No second boot sector was a copy although there is a place for one.
  bool lostCopy() const;
};

struct HybridPlan {
  DiskTables disk;
  std::shared_ptr<DeviceHandle> handle;
  PartitionTable table = {};  ///< the MBR that the disk should have
  Sector newSector0 = {};
  BootCodeOrigin bootCode = BootCodeOrigin::disk;
  std::vector<uint8_t> bootCodeFile;  ///< what was read of the file that the request names; empty before
  Sector0Difference difference;       ///< of sector 0
  std::optional<VolumePlan> volume;
  Serial serial = {};

  bool changesMBR() const { return newSector0 != disk.sector0; }
  /// More than the serial would change.
  bool changesVolume() const;

  /// What is written, in order: the volume's boot sectors, then sector 0, so that a disk that says how it starts can.
  DiskChange change() const;
};

/// Works out sector 0 for `plan.table`, and chooses the boot code. Throws Failure.
void planSector0(const HybridRequest& request, HybridPlan& plan);

/// Reads everything and checks everything that can be checked; writes nothing. Throws Failure.
HybridPlan planHybrid(const HybridRequest& request);

/// An MBR type, "7" or "0x07"; 0 for an empty text. Throws Failure.
uint8_t parseMBRType(const std::string& text);

}  // namespace vorlix::tool
