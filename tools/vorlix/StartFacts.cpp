// SPDX-License-Identifier: Apache-2.0
#include "StartFacts.h"

#include <Vorlix/Allocation.h>
#include <Vorlix/PartitionRecords.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "VolumeLook.h"

namespace vorlix::tool {
namespace {

constexpr const char* kBasicDataType = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr size_t kLargestStartStore = size_t{64} * 1024 * 1024;

bool hasType(const GPTEntry& entry, const char* type) {
  return isUsed(entry) && std::strcmp(entry.guid_text, type) == 0;
}

// The entry that the user means without naming it. Sets `facts.whyNoVolume` if there is no telling.
uint32_t likelyPartition(const DiskTables& disk, StartFacts& facts) {
  const uint32_t active = disk.activeSlot;
  if (active > 0 && active <= disk.entries.size() && hasType(disk.entries[active - 1], kBasicDataType)) return active;
  std::string numbers;
  uint32_t found = 0;
  size_t count = 0;
  for (uint32_t i = 0; i < disk.entries.size(); ++i) {
    if (!hasType(disk.entries[i], kBasicDataType)) continue;
    found = i + 1;
    if (++count <= 8) numbers += (numbers.empty() ? "" : ", ") + std::to_string(i + 1);
  }
  if (count == 1) return found;
  facts.whyNoVolume = count == 0 ? "no GPT entry has the type of a Windows volume"
                                 : "GPT entries " + numbers + (count > 8 ? " and others" : "") +
                                       " may hold Windows; --partition names one";
  return 0;
}

// A name may have come to mean something else meanwhile.
void requireSamePlace(const DiskTables& disk, DeviceHandle& whole, DeviceHandle& slice, const std::string& name,
                      const GPTEntry& entry) {
  const auto around = whole.identity();
  const auto place = slice.identity();
  if (!around || !place || !around->offset || !place->offset) return;
  if (around->disk == place->disk && *place->offset == *around->offset + entry.first_lba * disk.blockSize) return;
  throw Failure(name, "is not where the GPT of " + disk.device + " says");
}

// The file system's own records say whether the volume is in a clean state. On a mounted volume they change meanwhile.
void lookAtState(DeviceHandle& handle, const VolumeLook& look, StartVolume& volume) {
  volume.hibernated = look.isHibernated();
  if (look.isMounted()) {
    volume.stateReason = "the volume is mounted";
    return;
  }
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    return static_cast<size_t>(std::max<ssize_t>(handle.readAt(bytes.data(), bytes.size(), offset), 0));
  };
  const Allocation allocation = readAllocation(read, handle.size().value_or(0));
  if (allocation.fileSystem.empty()) {
    volume.stateReason = allocation.doubt;
  } else {
    volume.doubt = allocation.doubt;
  }
}

void lookAtStartFiles(DeviceHandle& handle, const VolumeLook& look, StartVolume& volume) {
  volume.bootManager = look.fact({"bootmgr"});
  volume.legacyStore = look.content({"boot", "BCD"}, kLargestStartStore);
  const auto isMissing = [](const FileFact& fact) { return fact.sight == FileFact::Sight::missing; };
  volume.suppliesBootFiles = (isMissing(volume.bootManager) || isMissing(volume.legacyStore)) &&
                             filesForStart(look, StartFirmware::bios).sight == FileFact::Sight::there;
  volume.suppliesEFIFiles = filesForStart(look, StartFirmware::efi).sight == FileFact::Sight::there;
  lookAtState(handle, look, volume);
}

VolumeLook lookInto(const std::string& name, const KnownSlice* known) {
  return known != nullptr ? VolumeLook(name, known->place) : VolumeLook(name);
}

void lookAtVolume(const DiskTables& disk, DeviceHandle& whole, const KnownSlice* known, StartFacts& facts) {
  const GPTEntry& entry = disk.entries[facts.partition - 1];
  if (entry.first_lba >= facts.blocks) {
    facts.whyNoVolume = "it begins behind the end of the disk";
    return;
  }
  StartVolume volume;
  volume.name = known != nullptr ? known->name : sliceNameOf(disk.device, facts.partition);
  const auto handle = openToLook(volume.name, DeviceLock::none, &disk);
  requireSamePlace(disk, whole, *handle, volume.name, entry);
  volume.bootSector = readBootSector(*handle, volume.name);
  for (const uint64_t offset : secondBootSectorPlaces(volume.bootSector, handle->size().value_or(0))) {
    StartVolume::Second second;
    second.offset = offset;
    readWhole(*handle, volume.name, second.sector, offset);
    volume.seconds.push_back(second);
  }
  lookAtStartFiles(*handle, lookInto(volume.name, known), volume);
  facts.volume = std::move(volume);
}

}  // namespace

FileFact filesForStart(const VolumeLook& look, StartFirmware firmware) {
  const bool isEFI = firmware == StartFirmware::efi;
  const char* const folder = isEFI ? "EFI" : "PCAT";
  const char* const manager = isEFI ? "bootmgfw.efi" : "bootmgr";
  FileFact fact;
  for (const std::vector<std::string>& names : {std::vector<std::string>{"Windows", "Boot", folder, manager},
                                                {"Windows", "System32", isEFI ? "winload.efi" : "winload.exe"},
                                                {"Windows", "System32", "config", "BCD-Template"}}) {
    fact = look.fact(names);
    if (fact.sight != FileFact::Sight::there) break;
  }
  return fact;
}

StartFacts startFactsOf(const DiskTables& disk, uint8_t type) {
  if (!disk.header) {
    throw Failure(disk.device, "has no GPT (no \"EFI PART\" at byte " + std::to_string(disk.blockSize) + ")");
  }
  StartFacts facts;
  facts.disk = disk.device;
  facts.blocks = disk.size / disk.blockSize;
  facts.blockSize = disk.blockSize;
  facts.sector0 = disk.sector0;
  facts.gpt.headerLBA = disk.headerLBA;
  facts.gpt.header = *disk.header;
  facts.gpt.entries = disk.entries;
  facts.gpt.findings = disk.damage;
  facts.type = type;
  return facts;
}

void addEFIVolume(const DiskTables& disk, const std::vector<KnownSlice>& known, StartFacts& facts) {
  for (uint32_t i = 0; i < disk.entries.size() && facts.efi.partition == 0; ++i) {
    if (hasType(disk.entries[i], kEFISystemGUID)) facts.efi.partition = i + 1;
  }
  if (facts.efi.partition == 0) return;
  const auto slice = std::find_if(known.begin(), known.end(),
                                  [&](const KnownSlice& item) { return item.number == facts.efi.partition; });
  const bool isKnown = slice != known.end();
  facts.efi.name = isKnown ? slice->name : sliceNameOf(disk.device, facts.efi.partition);
  const VolumeLook look = lookInto(facts.efi.name, isKnown ? &*slice : nullptr);
  facts.efi.bootManager = look.fact({"EFI", "Microsoft", "Boot", "bootmgfw.efi"});
  facts.efi.fallback = look.fact({"EFI", "Boot", "bootx64.efi"});
  facts.efi.store = look.content({"EFI", "Microsoft", "Boot", "BCD"}, kLargestStartStore);
}

void addStartVolume(const DiskTables& disk, DeviceHandle& whole, const KnownSlice& slice, StartFacts& facts) {
  facts.partition = slice.number;
  lookAtVolume(disk, whole, &slice, facts);
}

StartFacts collectStartFacts(const std::string& disk, uint32_t partition, uint8_t type) {
  const auto handle = openToLook(disk);
  const DiskTables tables = readTables(*handle, disk);
  StartFacts facts = startFactsOf(tables, type);
  facts.partition = partition != 0 ? partition : likelyPartition(tables, facts);
  if (facts.partition > tables.entries.size() ||
      (facts.partition != 0 && !isUsed(tables.entries[facts.partition - 1]))) {
    throw Failure(disk, "GPT entry " + std::to_string(facts.partition) + " is not in use");
  }
  if (facts.partition != 0) lookAtVolume(tables, *handle, nullptr, facts);
  addEFIVolume(tables, {}, facts);
  return facts;
}

}  // namespace vorlix::tool
