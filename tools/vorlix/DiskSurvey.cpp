// SPDX-License-Identifier: Apache-2.0
#include "DiskSurvey.h"

#include <Vorlix/BootSectors.h>
#include <Vorlix/PartitionRecords.h>
#include <Vorlix/foundation/UUID.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <memory>
#include <utility>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "StartFacts.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kWindowsDataType = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";

constexpr const char* kDeviceFolder = "/dev/";
constexpr size_t kMostVolumes = 256;  // of a disk; a table made to waste time has more

// The reason alone: the row has the name.
std::string reasonOf(const Failure& failure, const std::string& subject) {
  const std::string text = failure.what();
  const std::string start = subject + ": ";
  return text.starts_with(start) ? text.substr(start.size()) : text;
}

bool mayHoldWindows(const SurveyedPartition& partition) {
  constexpr const char* kMBRTypes[] = {"01", "04", "06", "07", "0B", "0C", "0E"};
  const std::string& type = partition.typeCode;
  const bool isPossibleType = partition.number == 0 || type == kWindowsDataType ||
                              std::find(std::begin(kMBRTypes), std::end(kMBRTypes), type) != std::end(kMBRTypes);
  // exFAT is read by the system alone.
  const bool isPossibleKind = partition.kind == "ntfs" || partition.kind == "msdos" ||
                              (partition.kind == "exfat" && partition.mountPoint.has_value());
  return isPossibleType && isPossibleKind;
}

std::string tableKind(const DiskTables& disk) {
  const MBRKind kind = mbrKindOf(disk.sector0);
  if (disk.header) return kind == MBRKind::hybrid ? "hybrid MBR" : "GPT";
  return kind == MBRKind::none || kind == MBRKind::volume ? "none" : "MBR";
}

std::string tableKind(const std::string& content) {
  if (content == "GUID_partition_scheme") return "GPT";
  return content == "FDisk_partition_scheme" ? "MBR" : "";
}

// @param content  a type GUID, an MBR type as in "0x07", or a word of the system's own
SurveyedPartition ofType(uint32_t number, uint64_t size, const std::string& content) {
  SurveyedPartition partition;
  partition.number = number;
  partition.size = size;
  partition.typeCode = content;
  partition.type = UUID::fromText(content) ? gptTypeName(content) : content;
  uint8_t type = 0;
  const char* const end = content.data() + content.size();
  if (content.starts_with("0x") && std::from_chars(content.data() + 2, end, type, 16).ptr == end) {
    partition.typeCode = hexByte(type);
    partition.type = mbrTypeName(type);
  }
  return partition;
}

std::vector<SurveyedPartition> shownPartitions(const DiskTables& disk) {
  std::vector<SurveyedPartition> partitions;
  if (disk.header) {
    for (uint32_t i = 0; i < disk.entries.size(); ++i) {
      const GPTEntry& entry = disk.entries[i];
      if (!isUsed(entry)) continue;
      const bool isReversed = entry.last_lba < entry.first_lba;
      const uint64_t size = isReversed ? 0 : (entry.last_lba - entry.first_lba + 1) * disk.blockSize;
      partitions.push_back(ofType(i + 1, size, entry.guid_text));
    }
    return partitions;
  }
  const MBRKind kind = mbrKindOf(disk.sector0);
  if (kind == MBRKind::none || kind == MBRKind::volume) return partitions;
  for (uint32_t i = 0; i < kSlotCount; ++i) {
    const MBRPartitionEntry& slot = disk.mbr.parts[i];
    if (slot.type == 0 || slot.size == 0) continue;
    partitions.push_back(ofType(i + 1, uint64_t{slot.size} * disk.blockSize, "0x" + hexByte(slot.type)));
  }
  return partitions;
}

// What a survey keeps of a disk while it looks at its partitions.
struct OpenDisk {
  std::shared_ptr<DeviceHandle> handle;
  std::optional<DiskTables> tables;
  std::vector<KnownSlice> slices;
  std::optional<StartFacts> facts;  // of the disk and its EFI System Partition, once a Windows was found
};

void openAndRead(SurveyedDisk& disk, OpenDisk& open) {
  try {
    open.handle = openToLook(disk.device);
  } catch (const Failure& failure) {
    disk.error = reasonOf(failure, disk.device);
    disk.isClosed = true;
    return;
  }
  try {
    open.tables = readTables(*open.handle, disk.device);
  } catch (const Failure& failure) {
    disk.error = reasonOf(failure, disk.device);
    return;
  }
  disk.size = open.tables->size;
  disk.table = tableKind(*open.tables);
  disk.damage = open.tables->damage;
}

void lookAtVolume(const SurveyedDisk& disk, OpenDisk& open, SurveyedPartition& partition) {
  try {
    VolumeOfSlice volume = volumeOfSlice(disk.device, partition.number);
    if (!volume.isThere) return;
    open.slices.push_back({partition.number, volume.name, volume.place});
    if (!disk.isImage) partition.device = kDeviceFolder + volume.place.name;
    partition.kind = std::move(volume.kind);
    partition.label = std::move(volume.label);
    partition.mountPoint = std::move(volume.place.mountPoint);
  } catch (const Failure& failure) {
    partition.whyUnseen = failure.what();
  }
}

void lookForWindows(const KnownSlice& slice, SurveyedPartition& partition) {
  try {
    VolumeView view(slice.place, partition.kind);
    partition.windows = findWindows(view);
    if (partition.windows == WindowsIs::installed) partition.version = versionOfWindows(view, false);
  } catch (const Failure& failure) {
    // Of a Windows whose registry cannot be read it is still known that it is there.
    if (!partition.windows) partition.whyUnseen = reasonOf(failure, slice.place.name);
  }
}

void judgeStart(const KnownSlice& slice, OpenDisk& open, SurveyedPartition& partition) {
  if (!open.tables || !open.tables->header) {
    partition.whyNotJudged = open.tables ? "no GPT" : "the disk cannot be read";
    return;
  }
  try {
    if (!open.facts) {
      StartFacts facts = startFactsOf(*open.tables, 0);
      addEFIVolume(*open.tables, open.slices, facts);
      open.facts = std::move(facts);
    }
    StartFacts facts = *open.facts;
    addStartVolume(*open.tables, *open.handle, slice, facts);
    partition.start = checkStart(facts, StartWay::automatic);
  } catch (const Failure& failure) {
    partition.whyNotJudged = failure.what();
  }
}

void lookAtPartitions(SurveyedDisk& disk, OpenDisk& open) {
  for (size_t i = 0; i < disk.partitions.size(); ++i) {
    SurveyedPartition& partition = disk.partitions[i];
    partition.device = partition.number == 0 ? disk.device : disk.device + "s" + std::to_string(partition.number);
    if (i < kMostVolumes) {
      lookAtVolume(disk, open, partition);
    } else {
      partition.whyUnseen = "only " + std::to_string(kMostVolumes) + " volumes of a disk are looked at";
    }
  }
  for (SurveyedPartition& partition : disk.partitions) {
    const auto slice = std::find_if(open.slices.begin(), open.slices.end(),
                                    [&](const KnownSlice& item) { return item.number == partition.number; });
    if (slice == open.slices.end() || !mayHoldWindows(partition)) continue;
    lookForWindows(*slice, partition);
    if (partition.windows == WindowsIs::installed) judgeStart(*slice, open, partition);
  }
}

// A disk without a table may be one volume. It has a row where a file system is recognised.
void lookAtWholeVolume(SurveyedDisk& disk, OpenDisk& open) {
  disk.partitions.resize(1);
  disk.partitions.front().size = disk.size.value_or(0);
  lookAtPartitions(disk, open);
  if (!disk.partitions.front().kind && !disk.partitions.front().mountPoint) disk.partitions.clear();
}

std::optional<bool> isExternalDisk(const std::string& name) {
  const auto session = platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromBSDName(name) : nullptr;
  const std::optional<bool> isInternal = disk ? disk->isInternal() : std::nullopt;
  return isInternal ? std::optional<bool>(!*isInternal) : std::nullopt;
}

SurveyedDisk surveyImage(const std::string& name) {
  SurveyedDisk disk;
  disk.name = disk.device = name;
  disk.isImage = true;
  struct stat status = {};
  if (stat(name.c_str(), &status) == 0) disk.size = static_cast<uint64_t>(status.st_size);
  disk.isReadOnly = access(name.c_str(), W_OK) != 0;
  OpenDisk open;
  openAndRead(disk, open);
  if (!open.tables) return disk;
  disk.partitions = shownPartitions(*open.tables);
  if (disk.table == "none") {
    lookAtWholeVolume(disk, open);
  } else {
    lookAtPartitions(disk, open);
  }
  return disk;
}

}  // namespace

bool isImageFile(const std::string& name) {
  struct stat status = {};
  return stat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

SurveyedDisk surveySystemDisk(const SystemDisk& known) {
  SurveyedDisk disk;
  disk.name = known.name;
  disk.device = kDeviceFolder + known.name;
  disk.size = known.size;
  disk.model = known.model;
  if (known.isWritable) disk.isReadOnly = !*known.isWritable;
  disk.isExternal = isExternalDisk(disk.device);
  OpenDisk open;
  openAndRead(disk, open);
  if (!open.tables) disk.table = tableKind(known.content);
  for (const SystemSlice& slice : known.slices)
    disk.partitions.push_back(ofType(slice.number, slice.size, slice.content));
  if (disk.partitions.empty() && (disk.table.empty() || disk.table == "none")) {
    lookAtWholeVolume(disk, open);
  } else {
    lookAtPartitions(disk, open);
  }
  return disk;
}

SurveyedDisk surveyNamedDisk(const std::string& name, const std::vector<SystemDisk>& all) {
  if (isImageFile(name)) return surveyImage(name);
  SurveyedDisk disk;
  disk.name = disk.device = name;
  disk.isClosed = true;
  try {
    const DeviceNames names = namesOf(name);
    if (names.isSlice()) throw Failure(name, "is a slice; its disk is " + names.whole);
    const auto known =
        std::find_if(all.begin(), all.end(), [&](const SystemDisk& item) { return item.name == names.own; });
    if (known != all.end()) return surveySystemDisk(*known);
    throw Failure(name, "is no disk that the system lists");
  } catch (const Failure& failure) {
    disk.error = reasonOf(failure, name);
  }
  return disk;
}

}  // namespace vorlix::tool
