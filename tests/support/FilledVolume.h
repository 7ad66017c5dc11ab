// SPDX-License-Identifier: Apache-2.0
//
// The fields of a volume record by name, and a record in which all of them are set.
#pragma once

#include <Vorlix/QDVolume.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace volume_test {

template <typename Value>
struct Field {
  const char* name;
  Value (QDVolume::*get)() const;
  void (QDVolume::*set)(Value);
};

using Text = std::optional<std::string>;

inline const auto& texts() {
  static constexpr std::array<Field<Text>, 16> kFields = {{
      {"filePath", &QDVolume::filePath, &QDVolume::setFilePath},
      {"drivePath", &QDVolume::drivePath, &QDVolume::setDrivePath},
      {"device", &QDVolume::device, &QDVolume::setDevice},
      {"diskName", &QDVolume::diskName, &QDVolume::setDiskName},
      {"vmUsername", &QDVolume::vmUsername, &QDVolume::setVmUsername},
      {"vmPassword", &QDVolume::vmPassword, &QDVolume::setVmPassword},
      {"humanSize", &QDVolume::humanSize, &QDVolume::setHumanSize},
      {"fileSystemType", &QDVolume::fileSystemType, &QDVolume::setFileSystemType},
      {"freeSpace", &QDVolume::freeSpace, &QDVolume::setFreeSpace},
      {"totalSize", &QDVolume::totalSize, &QDVolume::setTotalSize},
      {"volumeType", &QDVolume::volumeType, &QDVolume::setVolumeType},
      {"mediaSize", &QDVolume::mediaSize, &QDVolume::setMediaSize},
      {"installedOS", &QDVolume::installedOS, &QDVolume::setInstalledOS},
      {"networkShare", &QDVolume::networkShare, &QDVolume::setNetworkShare},
      {"bootResourcePath", &QDVolume::bootResourcePath, &QDVolume::setBootResourcePath},
      {"bootMgrPath", &QDVolume::bootMgrPath, &QDVolume::setBootMgrPath},
  }};
  return kFields;
}

inline const auto& flags() {
  static constexpr std::array<Field<bool>, 7> kFields = {{
      {"isBootable", &QDVolume::isBootable, &QDVolume::setIsBootable},
      {"isRemovable", &QDVolume::isRemovable, &QDVolume::setIsRemovable},
      {"isVM", &QDVolume::isVM, &QDVolume::setIsVM},
      {"showLine", &QDVolume::showLine, &QDVolume::setShowLine},
      {"hasWindows", &QDVolume::hasWindows, &QDVolume::setHasWindows},
      {"hasWindows8orGreater", &QDVolume::hasWindows8orGreater, &QDVolume::setHasWindows8orGreater},
      {"isWritable", &QDVolume::isWritable, &QDVolume::setIsWritable},
  }};
  return kFields;
}

inline const auto& numbers() {
  static constexpr std::array<Field<std::optional<vorlix::Number>>, 3> kFields = {{
      {"foundWindowsVersion", &QDVolume::foundWindowsVersion, &QDVolume::setFoundWindowsVersion},
      {"mediaSizeRaw", &QDVolume::mediaSizeRaw, &QDVolume::setMediaSizeRaw},
      {"mediaBlockSize", &QDVolume::mediaBlockSize, &QDVolume::setMediaBlockSize},
  }};
  return kFields;
}

inline const auto& uuids() {
  static constexpr std::array<Field<std::optional<vorlix::UUID>>, 3> kFields = {{
      {"volumeUUID", &QDVolume::volumeUUID, &QDVolume::setVolumeUUID},
      {"mediaUUID", &QDVolume::mediaUUID, &QDVolume::setMediaUUID},
      {"mediaContentUUID", &QDVolume::mediaContentUUID, &QDVolume::setMediaContentUUID},
  }};
  return kFields;
}

/// Returns a record with every field set: each string to its own name, every flag to true.
inline std::shared_ptr<QDVolume> filled() {
  const auto volume = QDVolume::init();
  for (const auto& field : texts()) (*volume.*field.set)(std::string(field.name));
  for (const auto& field : flags()) (*volume.*field.set)(true);
  int64_t next = 1;
  for (const auto& field : numbers()) (*volume.*field.set)(vorlix::Number::numberWithLongLong(next++));
  for (const auto& field : uuids()) (*volume.*field.set)(vorlix::UUID({static_cast<uint8_t>(next++)}));
  volume->setMbr(std::make_shared<std::vector<uint8_t>>(std::vector<uint8_t>{0x55, 0xAA}));
  volume->setPartitionID(std::make_shared<std::string>("partitionID"));
  volume->setInfo(std::make_shared<std::string>("info"));
  vorlix::Dictionary bold;
  bold.set("Font", std::string("Bold"));
  vorlix::AttributedString usage("usage", bold);
  usage.append("Description");
  volume->setUsageDescription(usage);
  volume->setFilesystemSize(4096);
  volume->setWrapperArray(std::make_shared<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>>());
  return volume;
}

}  // namespace volume_test
