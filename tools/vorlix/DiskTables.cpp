// SPDX-License-Identifier: Apache-2.0
#include "DiskTables.h"

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SliceName.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

#include "Arbitration.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "Failure.h"

namespace vorlix::tool {
namespace {

size_t readOrFail(DeviceHandle& handle, const std::string& device, std::span<uint8_t> bytes, uint64_t offset) {
  const ssize_t done = handle.readAt(bytes.data(), bytes.size(), offset);
  if (done < 0) throw Failure::ofErrno(device, errno);
  return static_cast<size_t>(done);
}

uint64_t blockSizeOf(DeviceHandle& handle, const std::string& device) {
  constexpr int64_t kSmallest = 512;
  std::optional<int64_t> size = handle.blockSize();
  if (!size) {
    const auto session = platform().diskArbitration->createSession();
    const auto disk = session ? session->diskFromBSDName(device) : nullptr;
    if (disk) size = disk->blockSize();
  }
  if (!size || *size < kSmallest) throw Failure(device, "its block size is not known");
  return static_cast<uint64_t>(*size);
}

void readGPT(DeviceHandle& handle, DiskTables& disk) {
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    return readOrFail(handle, disk.device, bytes, offset);
  };
  GPTReport report = checkGPT(read, disk.size, disk.blockSize);
  disk.damage = std::move(report.findings);
  if (!report.headerLBA) return;
  disk.header = report.header;
  disk.headerLBA = *report.headerLBA;
  disk.entries = std::move(report.entries);
}

// Absent for a whole disk and for what is on no known disk.
std::optional<std::string> diskOfSlice(const std::string& device) {
  try {
    DeviceNames names = namesOf(device);
    if (names.isSlice()) return std::move(names.whole);
  } catch (const Failure&) {
    return std::nullopt;
  }
  return std::nullopt;
}

std::string damageText(const DiskTables& disk) {
  std::string text = "GPT damaged: " + disk.damage.front().text;
  const size_t more = disk.damage.size() - 1;
  if (more > 0) text += " (and " + std::to_string(more) + " more, see \"show\")";
  return text;
}

// A slice of a disk image that reaches past the end of the image.
struct CutOffSlice {
  GPTEntry entry;
  std::string image;
  uint64_t blocks;  // of the image

  std::string limitText() const {
    return ", but " + image + " has only " + std::to_string(blocks) + ": it is truncated";
  }
};

// A slice by its name, which need not exist, and the tables of its disk.
struct NamedSlice {
  SliceName name;
  DiskTables disk;
};

std::optional<NamedSlice> namedSlice(const std::string& device) {
  const std::optional<SliceName> name = parseSliceName(device);
  auto disk = name ? quietlyReadTables(name->whole) : std::nullopt;
  if (!disk) return std::nullopt;
  return NamedSlice{*name, std::move(*disk)};
}

std::optional<CutOffSlice> cutOffSliceOf(const NamedSlice& slice) {
  const auto& [name, disk] = slice;
  if (!disk.header || name.number > disk.entries.size()) return std::nullopt;
  const GPTEntry& entry = disk.entries[name.number - 1];
  const uint64_t blocks = disk.size / disk.blockSize;
  if (!isUsed(entry) || entry.last_lba < blocks) return std::nullopt;
  return CutOffSlice{entry, name.whole, blocks};
}

// Whether the disk's table has the slice. Where there is no table, or where the slice may be in a table that is not
// read here, nothing is missing.
bool isInTable(const NamedSlice& slice) {
  const auto& [name, disk] = slice;
  if (disk.header) return name.number <= disk.entries.size() && isUsed(disk.entries[name.number - 1]);
  return whyNoMBR(disk) || name.number > kSlotCount || disk.mbr.parts[name.number - 1].type != 0;
}

}  // namespace

std::optional<std::string> whyNoMBR(const DiskTables& disk) {
  switch (mbrKindOf(disk.sector0)) {
    case MBRKind::none:
      return "holds no MBR: sector 0 does not end in 55 AA";
    case MBRKind::volume:
      return "holds no MBR: sector 0 is the boot sector of a volume";
    default:
      return std::nullopt;
  }
}

DiskTables readTables(const std::string& device) {
  return readTables(*openToLook(device), device);
}

DiskTables readTables(DeviceHandle& handle, const std::string& device) {
  DiskTables disk;
  disk.device = device;
  disk.identity = handle.identity();
  disk.size = handle.size().value_or(0);
  const size_t count = readOrFail(handle, device, disk.sector0, 0);
  if (count < disk.sector0.size()) {
    throw Failure(device, "holds " + std::to_string(count) + " bytes, not even one sector: it is empty or truncated");
  }
  decodeMBR(disk.sector0, disk.mbr, &disk.activeSlot);
  disk.blockSize = blockSizeOf(handle, device);
  readGPT(handle, disk);
  return disk;
}

std::optional<DiskTables> quietlyReadTables(const std::string& device) {
  const auto handle = platform().deviceFile->open(device, DeviceAccess::readOnly, DeviceLock::none);
  if (!handle) return std::nullopt;
  try {
    return readTables(*handle, device);
  } catch (const Failure&) {
    return std::nullopt;
  }
}

void requireSoundGPT(const DiskTables& disk, bool force) {
  if (disk.damage.empty()) return;
  if (!force) throw Failure(disk.device, damageText(disk) + "; --force writes all the same");
  for (const GPTFinding& finding : disk.damage) complain(disk.device + ": GPT damaged: " + finding.text);
}

std::optional<DiskTables> tablesAround(const std::string& slice) {
  const std::optional<std::string> whole = diskOfSlice(slice);
  return whole ? quietlyReadTables(*whole) : std::nullopt;
}

void requireSoundGPTOf(const std::string& slice, bool force) {
  if (const auto disk = tablesAround(slice)) requireSoundGPT(*disk, force);
}

void mentionLostHeader(const std::string& device, DeviceHandle& handle, const DiskTables* known) {
  static std::set<std::string> mentioned;
  // The look that was had already says in most cases that there is nothing to mention.
  const auto identity = handle.identity();
  const bool isKnown = known != nullptr && identity && known->identity && identity->disk == known->identity->disk &&
                       known->identity->offset == uint64_t{0};
  if (isKnown && !known->fromBackup()) return;
  const std::optional<std::string> whole = diskOfSlice(device);
  if (!whole || mentioned.count(*whole) != 0) return;
  const std::optional<DiskTables> disk = isKnown ? *known : quietlyReadTables(*whole);
  if (!disk || !disk->fromBackup()) return;
  mentioned.insert(*whole);
  complain(*whole + ": the GPT's header at LBA 1 is gone; its slices are those of the second copy, at LBA " +
           std::to_string(disk->headerLBA));
}

std::optional<std::string> whySliceIsMissing(const std::string& device) {
  const std::optional<NamedSlice> slice = namedSlice(device);
  if (!slice) return std::nullopt;
  const std::optional<CutOffSlice> cutOff = cutOffSliceOf(*slice);
  if (cutOff && cutOff->entry.first_lba >= cutOff->blocks) {
    return "starts at sector " + std::to_string(cutOff->entry.first_lba) + cutOff->limitText();
  }
  if (isInTable(*slice)) return std::nullopt;
  return slice->name.whole + " has no slice " + std::to_string(slice->name.number);
}

void mentionTruncation(const std::string& device) {
  const std::optional<NamedSlice> slice = namedSlice(device);
  const std::optional<CutOffSlice> cutOff = slice ? cutOffSliceOf(*slice) : std::nullopt;
  if (cutOff) complain(device + ": ends at sector " + std::to_string(cutOff->entry.last_lba) + cutOff->limitText());
}

void readWhole(DeviceHandle& handle, const std::string& device, std::span<uint8_t> bytes, uint64_t offset) {
  if (readOrFail(handle, device, bytes, offset) == bytes.size()) return;
  throw Failure(device, "ends before byte " + std::to_string(offset + bytes.size()) + ": it is truncated");
}

Sector readBootSector(DeviceHandle& handle, const std::string& volume) {
  Sector sector;
  if (readOrFail(handle, volume, sector, 0) < sector.size()) {
    throw Failure(volume, "too short to hold a boot sector: it is empty or truncated");
  }
  return sector;
}

}  // namespace vorlix::tool
