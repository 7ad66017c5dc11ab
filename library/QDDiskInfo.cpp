// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskInfo.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>

const char* const VolumeKindKey = "volumeKind";
const char* const VolumeMountableKey = "volumeMountable";
const char* const VolumeNameKey = "volumeName";
const char* const VolumePathKey = "volumePath";
const char* const VolumeTypeKey = "volumeType";
const char* const VolumeUUIDKey = "volumeUUID";
const char* const DevicePathKey = "devicePath";
const char* const DeviceGUIDKey = "deviceGUID";
const char* const DeviceUnitKey = "deviceUnit";
const char* const MediaBlockSizeKey = "mediaBlockSize";
const char* const MediaEjectableKey = "mediaEjectable";
const char* const MediaNameKey = "mediaName";
const char* const MediaPathKey = "mediaPath";

namespace {

std::optional<vorlix::Number> numberOf(const vorlix::Dictionary& description, const char* key) {
  const auto value = description.integer(key);
  if (!value) return std::nullopt;
  return vorlix::Number::numberWithLongLong(*value);
}

}  // namespace

std::shared_ptr<vorlix::Disk> QDDiskInfo::diskForItemType(int64_t itemType, const vorlix::URL& url) {
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) return nullptr;
  if (itemType == kVolumeItem) return session->diskFromVolumePath(url);
  if (itemType == kDeviceItem) return session->diskFromBSDName(url.path());
  return nullptr;
}

std::shared_ptr<QDDiskInfo> QDDiskInfo::infoForDeviceAtURL(const vorlix::URL& url) {
  const auto disk = diskForItemType(kDeviceItem, url);
  return disk ? initWithDiskArbitrationDisk(disk) : nullptr;
}

std::shared_ptr<QDDiskInfo> QDDiskInfo::infoForVolumeAtURL(const vorlix::URL& url) {
  const auto disk = diskForItemType(kVolumeItem, url);
  return disk ? initWithDiskArbitrationDisk(disk) : nullptr;
}

std::shared_ptr<QDDiskInfo> QDDiskInfo::initWithDiskArbitrationDisk(const std::shared_ptr<vorlix::Disk>& disk) {
  const auto description = disk ? disk->copyDescription() : std::nullopt;
  return initWithDiskArbitrationInfo(description.value_or(vorlix::Dictionary()));
}

std::shared_ptr<QDDiskInfo> QDDiskInfo::initWithDiskArbitrationInfo(const vorlix::Dictionary& description) {
  std::shared_ptr<QDDiskInfo> info(new QDDiskInfo);
  info->volumeKind_ = description.text(vorlix::kDescriptionVolumeKind);
  info->volumeMountable_ = description.boolean(vorlix::kDescriptionVolumeMountable).value_or(false);
  info->volumeName_ = description.text(vorlix::kDescriptionVolumeName);
  info->volumePath_ = description.url(vorlix::kDescriptionVolumePath);
  info->volumeType_ = description.text(vorlix::kDescriptionVolumeType);
  info->volumeUUID_ = description.uuid(vorlix::kDescriptionVolumeUUID);
  info->devicePath_ = description.text(vorlix::kDescriptionDevicePath);
  info->deviceGUID_ = description.data(vorlix::kDescriptionDeviceGUID);
  info->deviceUnit_ = numberOf(description, vorlix::kDescriptionDeviceUnit);
  info->mediaBlockSize_ = numberOf(description, vorlix::kDescriptionMediaBlockSize);
  info->mediaEjectable_ = description.boolean(vorlix::kDescriptionMediaEjectable).value_or(false);
  info->mediaName_ = description.text(vorlix::kDescriptionMediaName);
  info->mediaPath_ = description.text(vorlix::kDescriptionMediaPath);
  return info;
}

std::vector<std::string> QDDiskInfo::archiveClasses() const {
  return {kArchiveClass, "NSObject"};
}

void QDDiskInfo::encodeWithCoder(vorlix::KeyedArchiver& coder) const {
  coder.encodeText(volumeKind_, VolumeKindKey);
  coder.encodeBool(volumeMountable_, VolumeMountableKey);
  coder.encodeText(volumeName_, VolumeNameKey);
  coder.encodeURL(volumePath_, VolumePathKey);
  coder.encodeText(volumeType_, VolumeTypeKey);
  coder.encodeUUID(volumeUUID_, VolumeUUIDKey);
}

std::shared_ptr<QDDiskInfo> QDDiskInfo::initWithCoder(vorlix::KeyedUnarchiver& coder) {
  std::shared_ptr<QDDiskInfo> info(new QDDiskInfo);
  info->volumeKind_ = coder.decodeText(VolumeKindKey);
  info->volumeMountable_ = coder.decodeBool(VolumeMountableKey);
  info->volumeName_ = coder.decodeText(VolumeNameKey);
  info->volumePath_ = coder.decodeURL(VolumePathKey);
  info->volumeType_ = coder.decodeText(VolumeTypeKey);
  info->volumeUUID_ = coder.decodeUUID(VolumeUUIDKey);
  return info;
}
