// SPDX-License-Identifier: Apache-2.0
//
// Getters and setters.
#include "Fields.h"

bool QDVolume::isBootable() const {
  return fields_->isBootable;
}

void QDVolume::setIsBootable(bool value) {
  fields_->isBootable = value;
}

bool QDVolume::isRemovable() const {
  return fields_->isRemovable;
}

void QDVolume::setIsRemovable(bool value) {
  fields_->isRemovable = value;
}

bool QDVolume::isVM() const {
  return fields_->isVM;
}

void QDVolume::setIsVM(bool value) {
  fields_->isVM = value;
}

bool QDVolume::showLine() const {
  return fields_->showLine;
}

void QDVolume::setShowLine(bool value) {
  fields_->showLine = value;
}

bool QDVolume::hasWindows() const {
  return fields_->hasWindows;
}

void QDVolume::setHasWindows(bool value) {
  fields_->hasWindows = value;
}

bool QDVolume::hasWindows8orGreater() const {
  return fields_->hasWindows8orGreater;
}

void QDVolume::setHasWindows8orGreater(bool value) {
  fields_->hasWindows8orGreater = value;
}

bool QDVolume::isWritable() const {
  return fields_->isWritable;
}

void QDVolume::setIsWritable(bool value) {
  fields_->isWritable = value;
}

int64_t QDVolume::filesystemSize() const {
  return fields_->filesystemSize;
}

void QDVolume::setFilesystemSize(int64_t value) {
  fields_->filesystemSize = value;
}

std::shared_ptr<std::vector<uint8_t>> QDVolume::mbr() const {
  return fields_->get(&Fields::mbr).value;
}

void QDVolume::setMbr(std::shared_ptr<std::vector<uint8_t>> value) {
  fields_->set(&Fields::mbr, Fields::Growable<std::vector<uint8_t>>{std::move(value)});
}

std::shared_ptr<std::string> QDVolume::partitionID() const {
  return fields_->get(&Fields::partitionID).value;
}

void QDVolume::setPartitionID(std::shared_ptr<std::string> value) {
  fields_->set(&Fields::partitionID, Fields::Growable<std::string>{std::move(value)});
}

std::optional<std::string> QDVolume::filePath() const {
  return fields_->get(&Fields::filePath);
}

void QDVolume::setFilePath(std::optional<std::string> value) {
  fields_->set(&Fields::filePath, std::move(value));
}

std::optional<std::string> QDVolume::drivePath() const {
  return fields_->get(&Fields::drivePath);
}

void QDVolume::setDrivePath(std::optional<std::string> value) {
  fields_->set(&Fields::drivePath, std::move(value));
}

std::optional<std::string> QDVolume::device() const {
  return fields_->get(&Fields::device);
}

void QDVolume::setDevice(std::optional<std::string> value) {
  fields_->set(&Fields::device, std::move(value));
}

std::shared_ptr<std::string> QDVolume::info() const {
  return fields_->get(&Fields::info);
}

void QDVolume::setInfo(std::shared_ptr<std::string> value) {
  fields_->set(&Fields::info, std::move(value));
}

std::optional<std::string> QDVolume::diskName() const {
  return fields_->get(&Fields::diskName);
}

void QDVolume::setDiskName(std::optional<std::string> value) {
  fields_->set(&Fields::diskName, std::move(value));
}

std::optional<vorlix::AttributedString> QDVolume::usageDescription() const {
  return fields_->get(&Fields::usageDescription);
}

void QDVolume::setUsageDescription(std::optional<vorlix::AttributedString> value) {
  fields_->set(&Fields::usageDescription, std::move(value));
}

std::optional<std::string> QDVolume::vmUsername() const {
  return fields_->get(&Fields::vmUsername);
}

void QDVolume::setVmUsername(std::optional<std::string> value) {
  fields_->set(&Fields::vmUsername, std::move(value));
}

std::optional<std::string> QDVolume::vmPassword() const {
  return fields_->get(&Fields::vmPassword);
}

void QDVolume::setVmPassword(std::optional<std::string> value) {
  fields_->set(&Fields::vmPassword, std::move(value));
}

std::optional<std::string> QDVolume::humanSize() const {
  return fields_->get(&Fields::humanSize);
}

void QDVolume::setHumanSize(std::optional<std::string> value) {
  fields_->set(&Fields::humanSize, std::move(value));
}

std::optional<std::string> QDVolume::fileSystemType() const {
  return fields_->get(&Fields::fileSystemType);
}

void QDVolume::setFileSystemType(std::optional<std::string> value) {
  fields_->set(&Fields::fileSystemType, std::move(value));
}

std::optional<std::string> QDVolume::freeSpace() const {
  return fields_->get(&Fields::freeSpace);
}

void QDVolume::setFreeSpace(std::optional<std::string> value) {
  fields_->set(&Fields::freeSpace, std::move(value));
}

std::optional<std::string> QDVolume::totalSize() const {
  return fields_->get(&Fields::totalSize);
}

void QDVolume::setTotalSize(std::optional<std::string> value) {
  fields_->set(&Fields::totalSize, std::move(value));
}

std::optional<std::string> QDVolume::volumeType() const {
  return fields_->get(&Fields::volumeType);
}

void QDVolume::setVolumeType(std::optional<std::string> value) {
  fields_->set(&Fields::volumeType, std::move(value));
}

std::optional<std::string> QDVolume::mediaSize() const {
  return fields_->get(&Fields::mediaSize);
}

void QDVolume::setMediaSize(std::optional<std::string> value) {
  fields_->set(&Fields::mediaSize, std::move(value));
}

std::optional<vorlix::Number> QDVolume::foundWindowsVersion() const {
  return fields_->get(&Fields::foundWindowsVersion);
}

void QDVolume::setFoundWindowsVersion(std::optional<vorlix::Number> value) {
  fields_->set(&Fields::foundWindowsVersion, std::move(value));
}

std::optional<vorlix::Number> QDVolume::mediaSizeRaw() const {
  return fields_->get(&Fields::mediaSizeRaw);
}

void QDVolume::setMediaSizeRaw(std::optional<vorlix::Number> value) {
  fields_->set(&Fields::mediaSizeRaw, std::move(value));
}

std::optional<vorlix::Number> QDVolume::mediaBlockSize() const {
  return fields_->get(&Fields::mediaBlockSize);
}

void QDVolume::setMediaBlockSize(std::optional<vorlix::Number> value) {
  fields_->set(&Fields::mediaBlockSize, std::move(value));
}

std::optional<vorlix::UUID> QDVolume::volumeUUID() const {
  return fields_->get(&Fields::volumeUUID);
}

void QDVolume::setVolumeUUID(std::optional<vorlix::UUID> value) {
  fields_->set(&Fields::volumeUUID, std::move(value));
}

std::optional<vorlix::UUID> QDVolume::mediaUUID() const {
  return fields_->get(&Fields::mediaUUID);
}

void QDVolume::setMediaUUID(std::optional<vorlix::UUID> value) {
  fields_->set(&Fields::mediaUUID, std::move(value));
}

std::optional<vorlix::UUID> QDVolume::mediaContentUUID() const {
  return fields_->get(&Fields::mediaContentUUID);
}

void QDVolume::setMediaContentUUID(std::optional<vorlix::UUID> value) {
  fields_->set(&Fields::mediaContentUUID, std::move(value));
}

std::optional<std::string> QDVolume::installedOS() const {
  return fields_->get(&Fields::installedOS);
}

void QDVolume::setInstalledOS(std::optional<std::string> value) {
  fields_->set(&Fields::installedOS, std::move(value));
}

std::optional<std::string> QDVolume::networkShare() const {
  return fields_->get(&Fields::networkShare);
}

void QDVolume::setNetworkShare(std::optional<std::string> value) {
  fields_->set(&Fields::networkShare, std::move(value));
}

std::optional<std::string> QDVolume::bootResourcePath() const {
  return fields_->get(&Fields::bootResourcePath);
}

void QDVolume::setBootResourcePath(std::optional<std::string> value) {
  fields_->set(&Fields::bootResourcePath, std::move(value));
}

std::optional<std::string> QDVolume::bootMgrPath() const {
  return fields_->get(&Fields::bootMgrPath);
}

void QDVolume::setBootMgrPath(std::optional<std::string> value) {
  fields_->set(&Fields::bootMgrPath, std::move(value));
}

std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> QDVolume::wrapperArray() const {
  return fields_->wrapperArray;
}

void QDVolume::setWrapperArray(std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> value) {
  fields_->wrapperArray = std::move(value);
}
