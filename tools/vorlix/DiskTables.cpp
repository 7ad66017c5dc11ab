// SPDX-License-Identifier: Apache-2.0
#include "DiskTables.h"

#include <Vorlix/QDSDiskFunctions/PartitionRecords.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>

#include "Failure.h"

namespace vorlix::tool {
namespace {

std::unique_ptr<DeviceHandle> openForReading(const std::string& device) {
  auto handle = platform().deviceFile->open(device, DeviceAccess::readOnly, DeviceLock::none);
  if (!handle) throw Failure::ofErrno(device, errno);
  return handle;
}

size_t readOrFail(DeviceHandle& handle, const std::string& device, void* buffer, size_t count, uint64_t offset) {
  const ssize_t done = handle.readAt(buffer, count, offset);
  if (done < 0) throw Failure::ofErrno(device, errno);
  return static_cast<size_t>(done);
}

uint64_t blockSizeOf(const std::string& device) {
  std::optional<int64_t> size;
  if (const auto session = platform().diskArbitration->createSession()) {
    if (const auto disk = session->diskFromBSDName(device)) {
      if (const auto description = disk->copyDescription()) size = description->integer(kDescriptionMediaBlockSize);
    }
  }
  if (!size || *size <= 0) throw Failure(device, "its block size is not known");
  return static_cast<uint64_t>(*size);
}

void readGPT(DeviceHandle& handle, DiskTables& disk) {
  Sector sector;
  GPTHeader header = {};
  const size_t count = readOrFail(handle, disk.device, sector.data(), sector.size(), disk.blockSize);
  decodeGPTHeader({sector.data(), count}, header);
  if (header.signature != kGPTSignature) return;
  disk.header = header;

  // Only what the disk really holds is read; records beyond that stay zero, which is unused.
  const uint64_t offset = entriesOffset(header, disk.blockSize);
  const uint64_t room = disk.size > offset ? disk.size - offset : 0;
  const uint64_t held = std::min<uint64_t>(boundedEntryCount(header), room / kGPTEntrySize);
  std::vector<uint8_t> bytes(held * kGPTEntrySize);
  bytes.resize(readOrFail(handle, disk.device, bytes.data(), bytes.size(), offset));
  disk.entries.resize(std::max<size_t>(held, kSlotCount));
  for (size_t i = 0; i < disk.entries.size(); ++i) {
    const size_t from = std::min(bytes.size(), i * kGPTEntrySize);
    const size_t length = std::min(bytes.size() - from, kGPTEntrySize);
    decodeGPTEntry({bytes.data() + from, length}, disk.entries[i]);
  }
}

bool startsWith(const Sector& sector, size_t offset, const char* text) {
  return std::memcmp(sector.data() + offset, text, std::strlen(text)) == 0;
}

}  // namespace

std::optional<std::string> whyNoMBR(const DiskTables& disk) {
  if (!disk.hasMBR()) return "holds no MBR: sector 0 does not end in 55 AA";
  const BootSectorKind kind = kindOf(disk.sector0);
  if (kind == BootSectorKind::ntfs || kind == BootSectorKind::fat) {
    return "holds no MBR: sector 0 is the boot sector of a volume";
  }
  return std::nullopt;
}

bool isUsed(const GPTEntry& entry) {
  return std::strcmp(entry.guid_text, kUnusedGUID) != 0;
}

DiskTables readTables(const std::string& device) {
  DiskTables disk;
  disk.device = device;
  const auto handle = openForReading(device);
  disk.size = handle->size().value_or(0);
  const size_t count = readOrFail(*handle, device, disk.sector0.data(), disk.sector0.size(), 0);
  if (count < disk.sector0.size()) {
    throw Failure(device, "holds " + std::to_string(count) + " bytes, not even one sector");
  }
  decodeMBR(disk.sector0, disk.mbr, &disk.activeSlot);
  disk.blockSize = blockSizeOf(device);
  readGPT(*handle, disk);
  return disk;
}

PartitionTable hybridTable(const DiskTables& disk, uint32_t activeSlot) {
  PartitionTable table = {};
  table.signature = kMBRSignature;
  for (uint32_t i = 0; i < kSlotCount; ++i) {
    if (isUsed(disk.entries[i])) table.parts[i] = hybridSlot(disk.entries[i], i + 1 == activeSlot);
  }
  return table;
}

bool sameSlot(const MBRPartitionEntry& one, const MBRPartitionEntry& other) {
  return encodeSlots({one, {}, {}, {}}) == encodeSlots({other, {}, {}, {}});
}

Sector readBootSector(const std::string& volume) {
  const auto handle = openForReading(volume);
  Sector sector;
  if (readOrFail(*handle, volume, sector.data(), sector.size(), 0) < sector.size()) {
    throw Failure(volume, "too short to hold a boot sector");
  }
  return sector;
}

BootSectorKind kindOf(const Sector& bootSector) {
  if (startsWith(bootSector, 3, "NTFS    ")) return BootSectorKind::ntfs;
  const bool signature = bootSector[510] == 0x55 && bootSector[511] == 0xAA;
  if (signature && (startsWith(bootSector, 82, "FAT32") || startsWith(bootSector, 54, "FAT"))) {
    return BootSectorKind::fat;
  }
  const bool empty = std::all_of(bootSector.begin(), bootSector.end(), [](uint8_t byte) { return byte == 0; });
  return empty ? BootSectorKind::empty : BootSectorKind::other;
}

uint32_t hiddenSectors(const Sector& bootSector) {
  uint32_t value = 0;
  for (size_t i = 4; i > 0; --i) value = value << 8 | bootSector[28 + i - 1];
  return value;
}

}  // namespace vorlix::tool
