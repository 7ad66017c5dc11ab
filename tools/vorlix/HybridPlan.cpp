// SPDX-License-Identifier: Apache-2.0
#include "HybridPlan.h"

#include <Vorlix/QDSDiskFunctions/PartitionRecords.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>
#include <tuple>

#include "Arbitration.h"
#include "Failure.h"

namespace vorlix::tool {
namespace {

// Boot code proper has 440 bytes; the six that may follow are the disk signature.
constexpr size_t kSmallestBootCode = 440;

std::vector<uint8_t> readBootCode(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) throw Failure::ofErrno(path, ENOENT);
  if (error) throw Failure(path, error.message());
  if (!std::filesystem::is_regular_file(status)) throw Failure(path, "the boot code must be a regular file");
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure::ofErrno(path, errno);
  std::vector<uint8_t> bytes(kBootCodeSize);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<size_t>(file.gcount()));
  if (bytes.size() < kSmallestBootCode) {
    throw Failure(path, "holds " + std::to_string(bytes.size()) + " bytes, MBR boot code has at least " +
                            std::to_string(kSmallestBootCode));
  }
  return bytes;
}

const GPTEntry& usedEntry(const DiskTables& disk, uint32_t partition) {
  const GPTEntry& entry = disk.entries[partition - 1];
  if (!isUsed(entry)) throw Failure(disk.device, "GPT entry " + std::to_string(partition) + " is not in use");
  return entry;
}

void planVolume(const HybridRequest& request, HybridPlan& plan) {
  const GPTEntry& entry = usedEntry(plan.disk, request.partition);
  plan.patchesVolume = true;
  plan.volume = request.volume.empty() ? sliceNameOf(request.disk, request.partition) : request.volume;
  if (entry.first_lba < plan.disk.header->first_usable_lba) {
    throw Failure(plan.volume, "starts at sector " + std::to_string(entry.first_lba) +
                                   ", among those that the GPT keeps for itself");
  }
  const uint64_t start = request.start.value_or(entry.first_lba);
  if (start > std::numeric_limits<uint32_t>::max()) {
    throw Failure(plan.volume, "starts at sector " + std::to_string(start) +
                                   ", beyond the 32 bits of a boot sector's hidden-sectors field");
  }
  plan.start = static_cast<uint32_t>(start);
  plan.bootSector = readBootSector(plan.volume);
  if (bsdNameOf(plan.volume) == bsdNameOf(request.disk)) throw Failure(plan.volume, "is the whole disk, not a volume");
  if (kindOf(plan.bootSector) == BootSectorKind::other) {
    // The two fields lie elsewhere in other file systems; writing there would damage them.
    throw Failure(plan.volume, "its first sector is not an NTFS or FAT boot sector");
  }
}

}  // namespace

bool HybridPlan::writesMBR() const {
  const auto tied = [](const MBRPartitionEntry& slot) {
    return std::tie(slot.flag, slot.start_head, slot.start_sector, slot.start_track, slot.type, slot.end_head,
                    slot.end_sector, slot.end_track, slot.lba, slot.size);
  };
  for (size_t i = 0; i < kSlotCount; ++i) {
    if (tied(table.parts[i]) != tied(disk.mbr.parts[i])) return true;
  }
  return false;
}

Sector HybridPlan::newSector0() const {
  if (!writesMBR()) return disk.sector0;
  Sector sector = {};
  std::copy(bootCode.begin(), bootCode.end(), sector.begin());
  const auto slots = encodeSlots(table.parts);
  std::copy(slots.begin(), slots.end(), sector.begin() + kBootCodeSize);
  sector[510] = 0x55;
  sector[511] = 0xAA;
  return sector;
}

Sector HybridPlan::newBootSector() const {
  Sector sector = bootSector;
  for (size_t i = 0; i < 4; ++i) sector[28 + i] = static_cast<uint8_t>(start >> 8 * i);
  return sector;
}

HybridPlan planHybrid(const HybridRequest& request) {
  HybridPlan plan;
  if (!request.bootCode.empty()) plan.bootCode = readBootCode(request.bootCode);
  plan.disk = readTables(request.disk);
  if (!plan.disk.header) {
    throw Failure(request.disk, "has no GPT (no \"EFI PART\" at byte " + std::to_string(plan.disk.blockSize) + ")");
  }
  plan.table = hybridTable(plan.disk, request.partition != 0 ? request.partition : plan.disk.activeSlot);
  if (request.guard) {
    makeGuard(plan.table, plan.disk.header->last_usable_lba);
  } else {
    planVolume(request, plan);
    if (request.type != 0) plan.table.parts[request.partition - 1].type = request.type;
  }
  if (plan.table.parts[0].type != kProtectiveType) {
    throw Failure(request.disk, "slot 1 would be of type " + std::to_string(plan.table.parts[0].type) +
                                    " instead of EE: GPT entry 1 must be the EFI System Partition");
  }
  return plan;
}

uint8_t parseMBRType(const std::string& text) {
  if (text.empty()) return 0;
  const bool prefixed = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
  const char* const begin = text.data() + (prefixed ? 2 : 0);
  const char* const end = text.data() + text.size();
  unsigned value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value, 16);
  if (error != std::errc() || stop != end || value == 0 || value > 0xFF) {
    throw Failure("--type " + text, "not an MBR type (hexadecimal, 01 to FF)");
  }
  return static_cast<uint8_t>(value);
}

}  // namespace vorlix::tool
