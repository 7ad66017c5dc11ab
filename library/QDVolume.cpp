// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/HexDigits.h>

#include <string_view>

#include "library/QDVolume/Fields.h"

namespace {

// How an absent field is shown in text.
constexpr const char* kAbsent = "(null)";

std::string hexadecimal(const std::vector<uint8_t>& bytes) {
  constexpr size_t kGroup = 4;
  std::string text = "<";
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % kGroup == 0) text += ' ';
    vorlix::appendHex(text, bytes[i]);
  }
  return text + ">";
}

// Adds a line with a label and a field, unless the field is absent.
template <typename Field>
void addLine(std::string& dump, std::string_view label, const Field& field) {
  if (field) dump.append(label).append(*field) += '\n';
}

}  // namespace

QDVolume::QDVolume() : fields_(std::make_unique<Fields>()) {}

QDVolume::~QDVolume() = default;

std::shared_ptr<QDVolume> QDVolume::init() {
  const std::shared_ptr<QDVolume> volume(new QDVolume);
  volume->setMbr(std::make_shared<std::vector<uint8_t>>());
  return volume;
}

std::shared_ptr<QDVolume> QDVolume::newRecord() const {
  return init();
}

std::shared_ptr<QDVolume> QDVolume::copyWithZone() const {
  std::shared_ptr<QDVolume> copy = newRecord();
  const auto bytes = mbr();
  copy->fields_->set(&Fields::mbr, {bytes ? std::make_shared<std::vector<uint8_t>>(*bytes) : nullptr, true});
  const auto identifier = partitionID();
  copy->fields_->set(&Fields::partitionID, {identifier ? std::make_shared<std::string>(*identifier) : nullptr, true});
  copy->setFilePath(filePath());
  copy->setDevice(device());
  copy->setDrivePath(drivePath());
  copy->setInfo(info());
  copy->setDiskName(diskName());
  copy->setUsageDescription(usageDescription());
  copy->setIsVM(isVM());
  copy->setVmUsername(vmUsername());
  copy->setVmPassword(vmPassword());
  copy->setHumanSize(humanSize());
  copy->setFileSystemType(fileSystemType());
  copy->setFreeSpace(freeSpace());
  copy->setTotalSize(totalSize());
  copy->setVolumeType(volumeType());
  copy->setShowLine(showLine());
  copy->setIsBootable(isBootable());
  copy->setIsRemovable(isRemovable());
  copy->setMediaSizeRaw(mediaSizeRaw());
  copy->setMediaBlockSize(mediaBlockSize());
  copy->setVolumeUUID(volumeUUID());
  copy->setMediaUUID(mediaUUID());
  copy->setMediaContentUUID(mediaContentUUID());
  return copy;
}

void QDVolume::appendMBRData(const std::vector<uint8_t>& bytes) {
  const auto field = fields_->get(&Fields::mbr);
  if (!field.value || field.fixed) return;
  // Copied first, because the argument may be the buffer itself.
  const std::vector<uint8_t> added = bytes;
  field.value->insert(field.value->end(), added.begin(), added.end());
}

void QDVolume::appendpartitionIDData(const std::string& text) {
  if (!partitionID()) setPartitionID(std::make_shared<std::string>());
  const auto field = fields_->get(&Fields::partitionID);
  if (!field.fixed) field.value->append(text);
}

void QDVolume::appendInfo(const std::string& text) {
  if (!info()) setInfo(std::make_shared<std::string>());
  info()->append(text);
}

std::string QDVolume::description() const {
  std::string dump;
  addLine(dump, "File Path: ", filePath());
  if (const auto bytes = mbr()) addLine(dump, "     MBR: ", std::optional(hexadecimal(*bytes)));
  addLine(dump, "     Partition ID:", partitionID());
  addLine(dump, "     File System Size:", std::optional(std::to_string(filesystemSize())));
  addLine(dump, "     Drive Path: ", drivePath());
  addLine(dump, "     Device: ", device());
  addLine(dump, "     Info: ", info());
  addLine(dump, "     Disk Name: ", diskName());
  if (const auto usage = usageDescription()) addLine(dump, "     Usage: ", std::optional(usage->string()));
  addLine(dump, "     Readble Size:", humanSize());
  addLine(dump, "     File System Type: ", fileSystemType());
  addLine(dump, "     Free Space: ", freeSpace());
  addLine(dump, "     Total Size: ", totalSize());
  return dump;
}

std::string QDVolume::diskLabelWithSize() const {
  return diskName().value_or(kAbsent) + " (" + humanSize().value_or(kAbsent) + " bytes)";
}
