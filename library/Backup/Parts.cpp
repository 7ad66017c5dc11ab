// SPDX-License-Identifier: Apache-2.0
#include "Parts.h"

#include <Vorlix/NSNumber+HumanReadable.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/KeyedArchive.h>
#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vorlix {
namespace {

using Json = nlohmann::ordered_json;
using GUID = std::array<uint8_t, 16>;

constexpr uint64_t kBootRecordSize = 8192;
constexpr int kIdentitySchema = 1;

void readVolumeRun(DeviceHandle& volume, uint64_t offset, uint64_t size, BackupPart& part) {
  part.bytes.resize(static_cast<size_t>(size));
  const ssize_t got = volume.readAt(part.bytes.data(), part.bytes.size(), offset);
  if (got == static_cast<ssize_t>(size)) {
    part.volumeOffset = offset;
    return;
  }
  part.isUnread = got < 0;
  part.missing = got < 0 ? SystemError{errno}.reason() : "the volume ends before";
  part.bytes.clear();
}

// Where the file system keeps a copy of its boot sector. NTFS ends one sector before the place of the copy.
std::optional<uint64_t> copyOffsetOf(const BackupPlan& plan, std::span<const uint8_t> boot) {
  const std::string& kind = plan.allocation.fileSystem;
  if (boot.size() < kSectorSize) return std::nullopt;
  const uint64_t sector =
      kind == "exfat" ? uint64_t{1} << std::min<unsigned>(boot[108], 12) : littleEndian(boot, 11, 2);
  if (kind == "exfat") return 12 * sector;
  if (kind == "fat32") return littleEndian(boot, 50, 2) * sector;
  const uint64_t sectors = littleEndian(boot, 40, 8);
  if (kind != "ntfs" || sector == 0 || sectors >= plan.size / sector) return std::nullopt;
  return sectors * sector;
}

std::string textOfGUID(const GUID& guid) {
  std::array<char, 40> text = {};
  ConvertToGUID(guid.data(), text.data());
  return text.data();
}

Json identityGUID(const GUID& guid) {
  if (guid == GUID{}) return Json();
  std::string raw;
  for (const uint8_t byte : guid) {
    raw += raw.empty() ? "" : " ";
    appendUpperHex(raw, byte);
  }
  return {{"text", textOfGUID(guid)}, {"raw", raw}};
}

struct FoundIdentity {
  GUID disk = {};
  GUID partition = {};
  int64_t offset = -1;
  int32_t number = 0;
  std::array<char, 1024> medium = {};
};

FoundIdentity identityOf(const BackupPlan& plan) {
  FoundIdentity found;
  media_type(plan.name.c_str(), found.medium.data());
  if (plan.name != plan.wholeDisk) {
    found.number = partitionForDeviceIdentifier(plan.name.c_str());
    lookup_disk_info(plan.name.c_str(), found.disk.data(), found.partition.data(), &found.offset);
  }
  return found;
}

// The same document as that of `vorlix identify --json`.
BackupPart identityPart(const BackupPlan& plan, const FoundIdentity& found) {
  const std::string medium = found.medium.data();
  const Json document = {{"schema", kIdentitySchema},
                         {"device", plan.request.volume},
                         {"name", plan.name},
                         {"wholeDisk", plan.wholeDisk},
                         {"partition", found.number},
                         {"mediumType", medium.empty() ? Json() : Json(medium)},
                         {"diskGUID", identityGUID(found.disk)},
                         {"partitionGUID", identityGUID(found.partition)},
                         {"offset", found.offset < 0 ? Json() : Json(found.offset)}};
  const std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  return {"identity", "identity.json", {}, {}, {text.begin(), text.end()}, ""};
}

std::string nodeOf(const std::string& name) {
  return name.starts_with('/') ? name : "/dev/" + name;
}

BackupPart recordPart(const BackupPlan& plan, const VolumesDisk& disk, const Dictionary& description,
                      const FoundIdentity& found) {
  const auto volume = QDVolume::init();
  const Number size = Number::numberWithLongLong(static_cast<int64_t>(plan.size));
  volume->setDevice(nodeOf(plan.name));
  volume->setDrivePath(nodeOf(plan.wholeDisk));
  volume->setDiskName(description.text(kDescriptionVolumeName));
  volume->setHumanSize(stringWithHumanReadableInt(size));
  volume->setTotalSize(std::to_string(plan.size));
  if (plan.allocation.doubt.empty()) volume->setFreeSpace(std::to_string(plan.size - plan.allocation.usedBytes()));
  volume->setFileSystemType(description.text(kDescriptionVolumeKind));
  volume->setVolumeType("disk");
  volume->setVolumeUUID(description.uuid(kDescriptionVolumeUUID));
  volume->setMediaUUID(description.uuid(kDescriptionMediaUUID));
  if (const auto content = description.text(kDescriptionMediaContent)) {
    volume->setMediaContentUUID(UUID::fromText(*content));
  }
  if (found.partition != GUID{}) volume->appendpartitionIDData(textOfGUID(found.partition));
  if (disk.handle && plan.name != plan.wholeDisk) {
    volume->appendMBRData(std::vector<uint8_t>(disk.sector0.begin(), disk.sector0.end()));
  }
  BackupPart part = {"record", "volume.archive", {}, {}, {}, ""};
  try {
    part.bytes = KeyedArchiver::archivedDataWithRootObject(volume);
  } catch (const std::length_error& error) {
    part.missing = error.what();
  }
  return part;
}

}  // namespace

std::vector<std::string> allPartFiles() {
  return {"boot-record.bin",
          "boot-record-copy.bin",
          "boot-code.bin",
          "partition-table.bin",
          "partition-table-copy.bin",
          "BCD",
          "identity.json",
          "volume.archive"};
}

void addVolumeParts(BackupPlan& plan) {
  BackupPart record = {"bootRecord", "boot-record.bin", {}, {}, {}, ""};
  BackupPart copy = {"bootRecordCopy", "boot-record-copy.bin", {}, {}, {}, ""};
  readVolumeRun(*plan.volume, 0, std::min(plan.size, kBootRecordSize), record);
  const std::optional<uint64_t> place = copyOffsetOf(plan, record.bytes);
  if (place && *place != 0) {
    readVolumeRun(*plan.volume, *place, std::min<uint64_t>(kSectorSize, plan.size), copy);
  } else {
    copy.missing = "the file system keeps none, or its place is not known";
  }
  plan.parts.push_back(std::move(record));
  plan.parts.push_back(std::move(copy));
}

void addIdentityParts(BackupPlan& plan, const VolumesDisk& disk, const Dictionary& description) {
  const FoundIdentity found = identityOf(plan);
  plan.parts.push_back(identityPart(plan, found));
  plan.parts.push_back(recordPart(plan, disk, description, found));
}

}  // namespace vorlix
