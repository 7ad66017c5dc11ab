// SPDX-License-Identifier: Apache-2.0
#include "RestorePreparation.h"

#include <Vorlix/StartCheck.h>
#include <Vorlix/VolumeFacts.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include "Arbitration.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Files.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kWindowsDataGUID = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr size_t kSectorBytes = 512;

// Refuses, unless the user has said that it is meant.
void objectTo(const RestoreRequest& request, const std::string& subject, const std::string& reason) {
  if (!request.force) throw Failure(subject, reason + "; --force takes it all the same");
  complain(subject + ": warning: " + reason);
}

const GPTEntry& entryOf(const RestoreRequest& request, const DiskTables& disk) {
  if (!disk.header) throw Failure(request.disk, "has no GPT");
  if (request.partition > disk.entries.size() || !isUsed(disk.entries[request.partition - 1])) {
    throw Failure(request.disk, "GPT entry " + std::to_string(request.partition) + " is not in use");
  }
  requireSoundGPT(disk, request.force);
  const GPTEntry& entry = disk.entries[request.partition - 1];
  if (std::strcmp(entry.guid_text, kWindowsDataGUID) != 0) {
    objectTo(request, request.disk,
             "GPT entry " + std::to_string(request.partition) + " is of type " + gptTypeName(entry.guid_text) +
                 ", not Microsoft basic data");
  }
  return entry;
}

// A driver that has a volume of the disk mounted may write there at any time.
void requireNothingMounted(const RestoreRequest& request, const std::string& volume) {
  if (const auto folder = mountPointOf(volume)) {
    throw Failure(volume, "is mounted at " + *folder + " and has to be unmounted first");
  }
  const std::string whole = wholeDiskNameOf(request.disk);
  for (const MountedVolume& mounted : platform().mountedVolumes->volumes()) {
    try {
      if (wholeDiskNameOf(mounted.mountedFrom) != whole) continue;
    } catch (const Failure&) {
      continue;  // not of a disk
    }
    objectTo(request, request.disk, mounted.mountedFrom + " of this disk is mounted");
  }
}

std::unique_ptr<ImageSource> openSource(const RestoreRequest& request, uint64_t volumeSize) {
  ImageFailure failure;
  ImageSourceOptions options;
  options.largestSize = volumeSize;
  auto source = openImageSource(request.source, options, failure);
  if (!source) throw Failure(failure.subject, failure.reason);
  return source;
}

void requireRoomForImage(const RestoreRequest& request, const RestorePreparation& prepared) {
  const uint64_t bytes = bytesOfFiles(*prepared.image);
  if (bytes <= prepared.volumeSize) return;
  objectTo(request, request.source,
           imageText(*prepared.image) + ", does not fit " + prepared.volume + ", which has room for " +
               sizeText(prepared.volumeSize));
}

void requireFit(const RestoreRequest& request, const RestorePreparation& prepared) {
  const ImageFacts& facts = prepared.source->facts();
  const uint64_t blockSize = prepared.mbr.disk.blockSize;
  const uint64_t size = std::max(facts.size.value_or(0), facts.volume ? facts.volume->size() : 0);
  if (size > prepared.volumeSize) {
    throw Failure(request.source, "has " + sizeText(size) + ", and " + prepared.volume + " has room for " +
                                      sizeText(prepared.volumeSize));
  }
  if (facts.size && facts.volume && *facts.size < facts.volume->size() - facts.volume->sectorSize) {
    objectTo(request, request.source,
             "has " + sizeText(*facts.size) + ", but its file system is made for " + sizeText(facts.volume->size()) +
                 ": it is truncated");
  }
  if (facts.volume && facts.volume->sectorSize != blockSize) {
    objectTo(request, request.source,
             "is made for sectors of " + std::to_string(facts.volume->sectorSize) + " bytes, and those of " +
                 request.disk + " have " + std::to_string(blockSize));
  }
  if (!facts.volume) {
    objectTo(request, request.source, "is no NTFS, FAT or exFAT volume, as far as its first sector tells");
  }
}

std::string contentText(const ByteVector& start, uint64_t size) {
  const auto facts = volumeFacts(start);
  if (facts) return std::string(nameOf(facts->format)) + ", " + shortSizeText(facts->size());
  const bool isBlank = std::all_of(start.begin(), start.end(), [](uint8_t byte) { return byte == 0; });
  return isBlank ? "nothing that is recognised: its first sector is blank"
                 : "something that is not recognised, " + shortSizeText(size);
}

Sector sectorOf(const std::vector<uint8_t>& bytes, size_t offset) {
  Sector sector = {};
  const size_t count = offset < bytes.size() ? std::min(sector.size(), bytes.size() - offset) : 0;
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(std::min(offset, bytes.size())), count, sector.begin());
  return sector;
}

// The boot sector of the source with the place where it will be. It keeps its serial: it is the same volume.
Sector movedBootSector(const Sector& bootSector, uint64_t firstLBA) {
  const Field field = serialField(bootSector);
  if (field.size == 0 || firstLBA > std::numeric_limits<uint32_t>::max()) return bootSector;
  Serial serial = {};
  std::copy_n(bootSector.begin() + static_cast<std::ptrdiff_t>(field.offset), field.size, serial.begin());
  return patchedBootSector(bootSector, static_cast<uint32_t>(firstLBA), serial);
}

ByteChange structure(DeviceHandle& handle, const std::string& device, uint64_t offset, const Sector& after,
                     const char* reason) {
  return {offset, readDevice(handle, device, offset, after.size()), {after.begin(), after.end()}, reason};
}

DeviceChange volumeStructures(const RestorePreparation& prepared, const std::shared_ptr<DeviceHandle>& handle,
                              const GPTEntry& entry) {
  const std::vector<uint8_t>& start = prepared.source->facts().start;
  const Sector first = sectorOf(start, 0);
  const Sector moved = movedBootSector(first, entry.first_lba);
  DeviceChange volume = {prepared.volume, handle, {}};
  volume.bytes.push_back(structure(*handle, prepared.volume, 0, moved, "the boot sector"));
  for (const uint64_t offset : secondBootSectorPlaces(moved, prepared.volumeSize)) {
    // FAT32 has it among the first sectors, where it may be something else. NTFS has it at the end of the partition.
    const bool isInStart = offset + kSectorBytes <= start.size();
    if (isInStart && !isCopyButForPatch(first, sectorOf(start, static_cast<size_t>(offset)))) continue;
    volume.bytes.push_back(structure(*handle, prepared.volume, offset, moved, "the second boot sector"));
  }
  return volume;
}

void planLegacyStart(const RestoreRequest& request, RestorePreparation& prepared) {
  if (request.partition > kSlotCount) {
    throw Failure(request.disk, "a BIOS can start GPT entries 1 to 4 only; --start none restores without");
  }
  if (const auto obstacle = slotObstacle(prepared.mbr.disk.entries)) {
    throw Failure(request.disk, obstacle->text + "; --start none restores without");
  }
  HybridRequest hybrid;
  hybrid.disk = request.disk;
  hybrid.bootCode = request.bootCode;
  hybrid.partition = request.partition;
  hybrid.force = request.force;
  prepared.mbr.table = hybridTable(prepared.mbr.disk.entries, request.partition);
  planSector0(hybrid, prepared.mbr);
  prepared.changesMBR = prepared.mbr.newSector0 != prepared.mbr.disk.sector0;
}

void planEFIStart(const RestoreRequest& request, RestorePreparation& prepared) {
  if (request.efiFiles == EFIFiles::none) return;
  const GPTEntry& first = prepared.mbr.disk.entries.front();
  const bool isThere = request.partition != 1 && isUsed(first) && std::strcmp(first.guid_text, kEFISystemGUID) == 0;
  const auto refuseIfRequired = [&](const std::string& reason) {
    if (request.efiFiles != EFIFiles::required) return;
    throw Failure(request.disk, reason + "; --start legacy and --start none restore without");
  };
  if (!isThere) {
    refuseIfRequired("GPT entry 1 is no EFI System Partition, where the start files go");
    return;
  }
  prepared.efiVolume = sliceNameOf(request.disk, 1);
  prepared.efiObstacle = efiObstacle(prepared.efiVolume);
  if (prepared.efiObstacle) refuseIfRequired("no start files for EFI can be put there: " + *prepared.efiObstacle);
  prepared.plan.between = wordOf(request.efiFiles);
}

void requireOtherDisk(const RestoreRequest& request, const RestorePreparation& prepared, DeviceHandle& disk) {
  const auto& source = prepared.source->facts().identity;
  const auto target = disk.identity();
  if (source && target && source->disk == target->disk) {
    throw Failure(request.source, "is on the disk that it would be restored to");
  }
}

}  // namespace

std::string absoluteSource(const std::string& source) {
  if (source == kStandardInput) return source;
  std::error_code error;
  if (!std::filesystem::exists(source, error)) return source;
  const std::filesystem::path path = std::filesystem::absolute(source, error);
  return error ? source : path.string();
}

std::string imageText(const WimFacts::Image& image) {
  return "image " + std::to_string(image.index) + (image.name.empty() ? "" : " \"" + image.name + "\"") + ", " +
         shortSizeText(image.size);
}

WimFacts::Image imageOf(const std::string& source, const ImageFacts& facts, uint32_t index) {
  if (const auto obstacle = wimObstacle(facts)) throw Failure(source, *obstacle);
  const std::vector<WimFacts::Image>& images = facts.wim->images;
  if (index == 0 && images.size() == 1) return images.front();
  if (index != 0 && index <= images.size()) return images[index - 1];
  std::string list =
      index == 0 ? "it has several images, and --index selects one" : "it has no image " + std::to_string(index);
  for (const WimFacts::Image& image : images) list += (image.index == 1 ? ": " : "; ") + imageText(image);
  throw Failure(source, list);
}

std::string scratchFor(const RestoreRequest& request, const WimFacts::Image& image, uint64_t volumeSize) {
  std::string folder = request.scratch;
  if (folder.empty()) {
    const char* const usual = std::getenv("TMPDIR");
    folder = usual == nullptr || *usual == '\0' ? "/var/tmp" : usual;
  }
  if (const auto obstacle = scratchObstacle(folder, bytesOfScratch(image, volumeSize))) {
    throw Failure(folder, *obstacle + "; --scratch names another folder");
  }
  return folder;
}

RestorePreparation prepareRestore(const RestoreRequest& request, std::unique_ptr<ImageSource> applied) {
  RestorePreparation prepared;
  const auto open = [&](const std::string& device, const DiskTables* around) {
    return request.writes ? openToChange(device, around) : openToLook(device, DeviceLock::none, around);
  };
  const std::shared_ptr<DeviceHandle> disk = open(request.disk, nullptr);
  prepared.mbr.disk = readTables(*disk, request.disk);
  const GPTEntry& entry = entryOf(request, prepared.mbr.disk);
  prepared.entryName = partitionName(entry);
  prepared.volume = sliceNameOf(request.disk, request.partition);
  requireNothingMounted(request, prepared.volume);
  const std::shared_ptr<DeviceHandle> volume = open(prepared.volume, &prepared.mbr.disk);
  prepared.volumeSize = volume->size().value_or((entry.last_lba - entry.first_lba + 1) * prepared.mbr.disk.blockSize);
  prepared.place = {prepared.volumeSize, static_cast<uint32_t>(prepared.mbr.disk.blockSize), entry.first_lba};
  const bool isApplied = applied != nullptr;
  prepared.source = isApplied ? std::move(applied) : openSource(request, prepared.volumeSize);
  requireOtherDisk(request, prepared, *disk);
  const bool isWim = prepared.source->facts().kind == ImageKind::wim;
  if (!isWim && request.index != 0) throw Failure(request.source, "is no WIM, of which --index selects an image");
  if (isWim) prepared.image = imageOf(request.source, prepared.source->facts(), request.index);
  if (isWim) requireRoomForImage(request, prepared);
  if (!isWim || isApplied) requireFit(request, prepared);
  prepared.present = contentText(readDevice(*volume, prepared.volume, 0, kSectorBytes), prepared.volumeSize);
  if (request.isLegacy) planLegacyStart(request, prepared);
  planEFIStart(request, prepared);
  prepared.plan.source = absoluteSource(request.source);
  if (isWim) prepared.plan.image = prepared.image->index;
  if (isWim && !isApplied) return prepared;
  prepared.plan.structures.title = "restore of " + request.source + " to " + prepared.volume;
  prepared.plan.structures.devices.push_back(volumeStructures(prepared, volume, entry));
  if (prepared.changesMBR) {
    DeviceChange onDisk = {request.disk, disk, {}};
    onDisk.bytes.push_back(structure(*disk, request.disk, 0, prepared.mbr.newSector0, "sector 0"));
    prepared.plan.structures.devices.push_back(std::move(onDisk));
  }
  return prepared;
}

}  // namespace vorlix::tool
