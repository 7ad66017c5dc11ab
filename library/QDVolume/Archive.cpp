// SPDX-License-Identifier: Apache-2.0
//
// Writes records to archives and reads them. The keys that are written and those that are read differ on purpose; the
// table is in QDVolume.h.
#include <Vorlix/foundation/Base64.h>
#include <Vorlix/foundation/Utf8.h>

#include "Fields.h"

namespace {

constexpr const char* kPasswordKey = "vmPassword";
constexpr const char* kMapKey = "MVMapName";

bool truthOf(const std::optional<vorlix::Number>& number) {
  return number && number->boolValue();
}

template <typename Value>
std::shared_ptr<Value> growable(std::optional<Value> value) {
  return value ? std::make_shared<Value>(std::move(*value)) : nullptr;
}

}  // namespace

std::vector<std::string> QDVolume::archiveClasses() const {
  return {kArchiveClass, "NSObject"};
}

void QDVolume::encodeWithCoder(vorlix::KeyedArchiver& coder) const {
  if (const auto bytes = fields_->get(&Fields::mbr); bytes.value && bytes.fixed) {
    coder.encodeData(*bytes.value, "mbr");
  } else {
    coder.encodeMutableData(bytes.value, "mbr");
  }
  if (const auto identifier = fields_->get(&Fields::partitionID); identifier.value && identifier.fixed) {
    coder.encodeText(*identifier.value, "partitionID");
  } else {
    coder.encodeMutableText(identifier.value, "partitionID");
  }
  coder.encodeText(filePath(), "filePath");
  coder.encodeText(device(), "device");
  coder.encodeText(drivePath(), "drivePath");
  coder.encodeMutableText(info(), "info");
  coder.encodeText(diskName(), "diskName");
  coder.encodeAttributedText(usageDescription(), "usageDescription");
  coder.encodeBool(isVM(), "isVM");
  coder.encodeText(vmUsername(), "vmUsername");
  const auto password = vmPassword();
  coder.encodeText(password ? std::optional(vorlix::encodeBase64(*password)) : std::nullopt, kPasswordKey);
  coder.encodeText(humanSize(), "humanSize");
  coder.encodeText(fileSystemType(), "fileSystemType");
  coder.encodeText(freeSpace(), "freeSpace");
  coder.encodeText(totalSize(), "totalSize");
  coder.encodeNumber(vorlix::Number::numberWithBool(isBootable()), "isBootable");
  coder.encodeNumber(vorlix::Number::numberWithBool(isRemovable()), "isRemovable");
  coder.encodeUUID(volumeUUID(), "volumeUUID");
  coder.encodeUUID(mediaUUID(), "mediaUUID");
  coder.encodeUUID(mediaContentUUID(), "mediaContentUUID");
}

std::shared_ptr<QDVolume> QDVolume::initWithCoder(vorlix::KeyedUnarchiver& coder) {
  std::shared_ptr<QDVolume> volume(new QDVolume);
  volume->readEntries(coder);
  return volume;
}

void QDVolume::readEntries(vorlix::KeyedUnarchiver& coder) {
  setMbr(growable(coder.decodeData("mbr")));
  setPartitionID(growable(coder.decodeText("partitionID")));
  setFilePath(coder.decodeText("filePath"));
  setDevice(coder.decodeText("device"));
  setDrivePath(coder.decodeText("drivePath"));
  setInfo(growable(coder.decodeText("info")));
  setDiskName(coder.decodeText("diskName"));
  setUsageDescription(coder.decodeAttributedText("usageDescription"));
  setIsVM(truthOf(coder.decodeNumber("isVM")));
  setVmUsername(coder.decodeText("vmUsername"));

  // The key is the record's current password, so a new record never gets a password from an archive.
  if (const auto key = vmPassword()) {
    if (const auto encoded = coder.decodeText(*key)) {
      auto password = vorlix::decodeBase64(*encoded);
      if (password && !vorlix::isUtf8(*password)) password.reset();
      setVmPassword(std::move(password));
    }
  }

  setHumanSize(coder.decodeText("humanSize"));

  // The file-system type is not read from its own entry. It is that of the text under another key, which nobody writes,
  // and a text has no file-system type.
  coder.decodeText(kMapKey);
  setFileSystemType(std::nullopt);

  setFreeSpace(coder.decodeText("freeSpace"));
  setTotalSize(coder.decodeText("totalSize"));
  setIsBootable(truthOf(coder.decodeNumber("isBootable")));
  setIsRemovable(truthOf(coder.decodeNumber("isRemovable")));
  setVolumeType(coder.decodeText("volumeType"));
  setVolumeUUID(coder.decodeUUID("volumeUUID"));
  setMediaUUID(coder.decodeUUID("mediaUUID"));
  setMediaContentUUID(coder.decodeUUID("mediaContentUUID"));
  setShowLine(false);
}
