// SPDX-License-Identifier: Apache-2.0
#include "HybridPlan.h"

#include <Vorlix/OwnBootCode.h>
#include <Vorlix/StartCheck.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>
#include <utility>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kBasicDataGUID = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr const char* kForce = "; --force takes it all the same";

std::vector<uint8_t> readBootCode(const std::string& path, bool force) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) throw Failure::ofErrno(path, ENOENT);
  if (error) throw Failure(path, error.message());
  if (!std::filesystem::is_regular_file(status)) throw Failure(path, "the boot code must be a regular file");
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure::ofErrno(path, errno);
  std::vector<uint8_t> bytes(kBootCodeSize);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (file.bad()) throw Failure(path, "cannot be read");
  bytes.resize(static_cast<size_t>(file.gcount()));
  if (bytes.size() < kPureBootCodeSize) {
    throw Failure(path, "holds " + std::to_string(bytes.size()) + " bytes, MBR boot code has at least " +
                            std::to_string(kPureBootCodeSize));
  }
  const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(kPureBootCodeSize);
  const bool isEmpty = std::all_of(bytes.begin(), end, [](uint8_t byte) { return byte == 0; });
  if (isEmpty && !force) throw Failure(path, std::string("is no boot code, its bytes are all zero") + kForce);
  return bytes;
}

void readBootCodeOnce(const HybridRequest& request, HybridPlan& plan) {
  if (request.bootCode.empty() || !plan.bootCodeFile.empty()) return;
  plan.bootCodeFile = readBootCode(request.bootCode, request.force);
}

// The file's, or else the disk's. A disk without any gets our own, but for a guard MBR, which is to start nothing.
std::vector<uint8_t> chooseBootCode(const HybridRequest& request, HybridPlan& plan) {
  if (!plan.bootCodeFile.empty()) {
    plan.bootCode = BootCodeOrigin::file;
    return plan.bootCodeFile;
  }
  const Sector& sector0 = plan.disk.sector0;
  std::vector<uint8_t> code(sector0.begin(), sector0.begin() + static_cast<std::ptrdiff_t>(kBootCodeSize));
  if (mbrKindOf(sector0) == MBRKind::volume) {
    throw Failure(request.disk,
                  "sector 0 is the boot sector of a volume, whose code starts no slot; name MBR boot "
                  "code with --boot-code");
  }
  if (request.guard || request.keepsBootCode || !lacksDiskBootCode(sector0)) return code;
  plan.bootCode = BootCodeOrigin::own;
  const DiskBootCode own = ownBootCode();
  std::copy(own.begin(), own.end(), code.begin());
  return code;
}

std::shared_ptr<DeviceHandle> openFor(const HybridRequest& request, const std::string& device,
                                      const DiskTables* around = nullptr) {
  return request.writes ? openToChange(device, around) : openToLook(device, DeviceLock::none, around);
}

const GPTEntry& usedEntry(const DiskTables& disk, uint32_t partition) {
  const GPTEntry& entry = disk.entries[partition - 1];
  if (!isUsed(entry)) throw Failure(disk.device, "GPT entry " + std::to_string(partition) + " is not in use");
  return entry;
}

// The first LBA as a boot sector can have it.
uint32_t startOf(const HybridRequest& request, const DiskTables& disk, const GPTEntry& entry,
                 const std::string& volume) {
  if (entry.first_lba < disk.header->first_usable_lba) {
    throw Failure(
        volume, "starts at sector " + std::to_string(entry.first_lba) + ", among those that the GPT keeps for itself");
  }
  const uint64_t start = request.start.value_or(entry.first_lba);
  if (start > std::numeric_limits<uint32_t>::max()) {
    throw Failure(volume, "starts at sector " + std::to_string(start) +
                              ", beyond the 32 bits of a boot sector's hidden-sectors field");
  }
  const uint64_t blocks = disk.size / disk.blockSize;
  if (request.volume.empty() && entry.first_lba >= blocks) {
    throw Failure(volume, "starts at sector " + std::to_string(entry.first_lba) + ", but " + disk.device +
                              " has only " + std::to_string(blocks) + ": it is truncated");
  }
  return static_cast<uint32_t>(start);
}

// A name may have come to mean something else; what was opened has not. The volume must be the one that the GPT entry
// is about, unless it was named and is on another disk.
void requirePlace(const HybridRequest& request, const HybridPlan& plan, VolumePlan& volume, const GPTEntry& entry) {
  const bool isNamed = !request.volume.empty();
  const std::string unknown = "the system does not tell where on " + request.disk + " it lies";
  const auto disk = plan.handle->identity();
  const auto slice = volume.handle->identity();
  if (!disk || !slice || !disk->offset || !slice->offset) {
    // Some systems tell of a slice only which disk it is on.
    const bool isOnDisk = disk && slice && disk->disk == slice->disk;
    if (!isOnDisk && !isNamed) throw Failure(volume.name, unknown);
    return;
  }
  if (disk->disk != slice->disk) {
    if (!isNamed) throw Failure(volume.name, "is not on " + request.disk);
    volume.isElsewhere = true;
    return;
  }
  if (*slice->offset == *disk->offset) throw Failure(volume.name, "is the whole disk, not a volume");
  const uint64_t place = *disk->offset + entry.first_lba * plan.disk.blockSize;
  if (*slice->offset == place) return;
  throw Failure(volume.name, "lies at byte " + std::to_string(*slice->offset) + " of " + request.disk + ", GPT entry " +
                                 std::to_string(request.partition) + " begins at byte " + std::to_string(place));
}

// Why a volume is hardly the Windows that is to start.
std::optional<std::string> whyOdd(const VolumePlan& volume, const GPTEntry& entry) {
  if (std::strcmp(entry.guid_text, kEFISystemGUID) == 0) return "is the EFI System Partition";
  if (std::strcmp(entry.guid_text, kBasicDataGUID) != 0) {
    return std::string("its GPT type is ") + gptTypeName(entry.guid_text) + ", not Microsoft basic data";
  }
  switch (kindOf(volume.before)) {
    case BootSectorKind::empty:
      return "is blank, its first sector is not an NTFS or FAT boot sector";
    case BootSectorKind::other:
      return "its first sector is not an NTFS or FAT boot sector";
    default:
      return std::nullopt;
  }
}

void findSecondBootSectors(VolumePlan& volume) {
  const uint64_t size = volume.handle->size().value_or(0);
  for (const uint64_t offset : secondBootSectorPlaces(volume.before, size)) {
    SecondBootSector second;
    second.offset = offset;
    readWhole(*volume.handle, volume.name, second.now, offset);
    second.isCopy = isCopyButForPatch(volume.before, second.now);
    volume.seconds.push_back(second);
  }
}

void planVolume(const HybridRequest& request, HybridPlan& plan) {
  const GPTEntry& entry = usedEntry(plan.disk, request.partition);
  VolumePlan volume;
  volume.name = request.volume.empty() ? sliceNameOf(request.disk, request.partition) : request.volume;
  volume.start = startOf(request, plan.disk, entry, volume.name);
  if (const auto obstacle = slotObstacle(plan.disk.entries)) throw Failure(request.disk, obstacle->text);
  requireSoundGPT(plan.disk, request.force);  // after what no --force changes
  volume.handle = openFor(request, volume.name, &plan.disk);
  requirePlace(request, plan, volume, entry);
  volume.before = readBootSector(*volume.handle, volume.name);
  volume.oddity = whyOdd(volume, entry);
  if (volume.oddity && !request.force) throw Failure(volume.name, *volume.oddity + kForce);
  const BootSectorKind kind = kindOf(volume.before);
  // The fields lie elsewhere in other file systems; writing there would damage them.
  volume.isPatched = kind == BootSectorKind::ntfs || kind == BootSectorKind::fat;
  volume.after = patchedBootSector(volume.before, volume.start, plan.serial);
  if (volume.isPatched) findSecondBootSectors(volume);
  plan.volume = std::move(volume);
}

// A driver or a mirror keeps what it knows of the boot sector, and writes it back or takes the volume for another one.
void requireUnmounted(const VolumePlan& volume) {
  if (const auto path = mountPointOf(volume.name)) {
    throw Failure(volume.name, "is mounted at " + *path + " and has to be unmounted first");
  }
}

ByteChange byteChange(uint64_t offset, const Sector& before, const Sector& after, const char* reason) {
  return {offset, {before.begin(), before.end()}, {after.begin(), after.end()}, reason};
}

}  // namespace

bool VolumePlan::lostCopy() const {
  return !seconds.empty() &&
         std::none_of(seconds.begin(), seconds.end(), [](const SecondBootSector& second) { return second.isCopy; });
}

bool HybridPlan::changesVolume() const {
  if (!volume || !volume->isPatched) return false;
  if (hiddenSectors(volume->before) != volume->start) return true;
  return std::any_of(volume->seconds.begin(), volume->seconds.end(),
                     [&](const SecondBootSector& second) { return second.isCopy && second.now != volume->before; });
}

DiskChange HybridPlan::change() const {
  DiskChange change;
  change.title = "hybrid MBR of " + disk.device;
  if (volume) {
    DeviceChange onVolume = {volume->name, volume->handle, {}};
    onVolume.bytes.push_back(byteChange(0, volume->before, volume->after, "the boot sector"));
    for (const SecondBootSector& second : volume->seconds) {
      if (!second.isCopy) continue;
      onVolume.bytes.push_back(byteChange(second.offset, second.now, volume->after, "the second boot sector"));
    }
    change.devices.push_back(std::move(onVolume));
  }
  change.devices.push_back({disk.device, handle, {byteChange(0, disk.sector0, newSector0, "sector 0")}});
  return change;
}

void planSector0(const HybridRequest& request, HybridPlan& plan) {
  if (plan.table.parts[0].type != kProtectiveType) {
    throw Failure(request.disk, "slot 1 would be of type " + std::to_string(plan.table.parts[0].type) +
                                    " instead of EE: GPT entry 1 must be the EFI System Partition");
  }
  readBootCodeOnce(request, plan);
  const std::vector<uint8_t> code = chooseBootCode(request, plan);
  const Sector wanted = makeSector0(code, plan.table.parts);
  plan.difference = compareSector0(plan.disk.sector0, wanted);
  plan.newSector0 = renewedSector0(plan.disk.sector0, wanted);
}

HybridPlan planHybrid(const HybridRequest& request) {
  HybridPlan plan;
  readBootCodeOnce(request, plan);  // before the disk is opened
  plan.handle = openFor(request, request.disk);
  plan.disk = readTables(*plan.handle, request.disk);
  if (!plan.disk.header) {
    throw Failure(request.disk, "has no GPT (no \"EFI PART\" at byte " + std::to_string(plan.disk.blockSize) + ")");
  }
  plan.table = hybridTable(plan.disk.entries, request.partition != 0 ? request.partition : plan.disk.activeSlot);
  if (!drawSerial(plan.serial)) throw Failure("/dev/random", "gives no random bytes for a serial");
  if (request.guard) {
    requireSoundGPT(plan.disk, request.force);
    makeGuard(plan.table, plan.disk.header->last_usable_lba);
  } else {
    planVolume(request, plan);
    if (request.type != 0) plan.table.parts[request.partition - 1].type = request.type;
  }
  planSector0(request, plan);
  if (request.writes && plan.volume) requireUnmounted(*plan.volume);
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
