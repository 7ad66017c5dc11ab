// SPDX-License-Identifier: Apache-2.0
/// @file
/// What the system's disk arbitration knows of a disk or volume, as a record.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/KeyedArchive.h>
#include <Vorlix/foundation/Number.h>
#include <Vorlix/foundation/Object.h>
#include <Vorlix/foundation/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {
class Disk;
}  // namespace vorlix

// The fields' names, for hosts that keep records of their own. The archive has entries under the first six.
VORLIX_EXPORT extern const char* const VolumeKindKey;       ///< "volumeKind"
VORLIX_EXPORT extern const char* const VolumeMountableKey;  ///< "volumeMountable"
VORLIX_EXPORT extern const char* const VolumeNameKey;       ///< "volumeName"
VORLIX_EXPORT extern const char* const VolumePathKey;       ///< "volumePath"
VORLIX_EXPORT extern const char* const VolumeTypeKey;       ///< "volumeType"
VORLIX_EXPORT extern const char* const VolumeUUIDKey;       ///< "volumeUUID"
VORLIX_EXPORT extern const char* const DevicePathKey;       ///< "devicePath"
VORLIX_EXPORT extern const char* const DeviceGUIDKey;       ///< "deviceGUID"
VORLIX_EXPORT extern const char* const DeviceUnitKey;       ///< "deviceUnit"
VORLIX_EXPORT extern const char* const MediaBlockSizeKey;   ///< "mediaBlockSize"
VORLIX_EXPORT extern const char* const MediaEjectableKey;   ///< "mediaEjectable"
VORLIX_EXPORT extern const char* const MediaNameKey;        ///< "mediaName"
VORLIX_EXPORT extern const char* const MediaPathKey;        ///< "mediaPath"

/// An immutable record of one disk or volume, made from its description. It may be shared between threads.
///
/// Each field holds the value of the description's key of the same name (kDescriptionVolumeKind and so on in
/// <Vorlix/platform/DiskArbitration.h>). A key that is missing, or has a value of another type, leaves its field absent
/// or false.
///
/// Archives carry the six volume fields: "volumeKind", "volumeMountable" (plain truth value), "volumeName",
/// "volumePath" (URL), "volumeType" and "volumeUUID" (UUID), in this order. A decoded record has the others absent or
/// false.
class VORLIX_EXPORT QDDiskInfo : public vorlix::Object, public vorlix::Coding {
 public:
  static constexpr const char* kArchiveClass = "QDDiskInfo";

  static constexpr int64_t kVolumeItem = 0;  ///< item named by its mount point
  static constexpr int64_t kDeviceItem = 1;  ///< item named by its device node, such as /dev/disk2

  /// Finds a disk over a connection of its own, which is closed again. Keyword form: `diskForItemType:atURL:`.
  /// @param itemType  kVolumeItem or kDeviceItem.
  /// @return null for any other type, for a path that is not known, and when there is no connection.
  static std::shared_ptr<vorlix::Disk> diskForItemType(int64_t itemType, const vorlix::URL& url);

  /// A record of the device with that node, or null. Keyword form: `infoForDeviceAtURL:`.
  static std::shared_ptr<QDDiskInfo> infoForDeviceAtURL(const vorlix::URL& url);

  /// A record of the volume that is mounted there, or null. Keyword form: `infoForVolumeAtURL:`.
  static std::shared_ptr<QDDiskInfo> infoForVolumeAtURL(const vorlix::URL& url);

  /// A record of what is known of the disk now; of a disk without a description, or null, all fields are absent or
  /// false. Keyword form: `initWithDiskArbitrationDisk:`.
  static std::shared_ptr<QDDiskInfo> initWithDiskArbitrationDisk(const std::shared_ptr<vorlix::Disk>& disk);

  /// A record of a description. Keyword form: `initWithDiskArbitrationInfo:`.
  static std::shared_ptr<QDDiskInfo> initWithDiskArbitrationInfo(const vorlix::Dictionary& description);

  /// Keyword form: `initWithCoder:`. An entry that is missing or of another class leaves its field absent or false.
  static std::shared_ptr<QDDiskInfo> initWithCoder(vorlix::KeyedUnarchiver& coder);

  /// True: archives are read with the class of each entry checked.
  static bool supportsSecureCoding() { return true; }

  std::vector<std::string> archiveClasses() const override;

  /// Keyword form: `encodeWithCoder:`.
  void encodeWithCoder(vorlix::KeyedArchiver& coder) const override;

  /// The volume can be mounted.
  bool volumeMountable() const { return volumeMountable_; }

  /// The medium can be ejected.
  bool mediaEjectable() const { return mediaEjectable_; }

  /// File-system kind, such as "hfs" or "msdos".
  const std::optional<std::string>& volumeKind() const { return volumeKind_; }

  /// Name of the volume.
  const std::optional<std::string>& volumeName() const { return volumeName_; }

  /// Mount point.
  const std::optional<vorlix::URL>& volumePath() const { return volumePath_; }

  /// Description of the file system's type.
  const std::optional<std::string>& volumeType() const { return volumeType_; }

  /// Identifier of the volume: a UUID, not its text.
  const std::optional<vorlix::UUID>& volumeUUID() const { return volumeUUID_; }

  /// The device's path in the I/O registry.
  const std::optional<std::string>& devicePath() const { return devicePath_; }

  /// Identifier of the device, as bytes.
  const std::optional<vorlix::Data>& deviceGUID() const { return deviceGUID_; }

  /// Unit number, the n of diskn.
  const std::optional<vorlix::Number>& deviceUnit() const { return deviceUnit_; }

  /// Bytes a block.
  const std::optional<vorlix::Number>& mediaBlockSize() const { return mediaBlockSize_; }

  /// Name of the medium.
  const std::optional<std::string>& mediaName() const { return mediaName_; }

  /// The medium's path in the I/O registry.
  const std::optional<std::string>& mediaPath() const { return mediaPath_; }

 private:
  QDDiskInfo() = default;

  bool volumeMountable_ = false;
  bool mediaEjectable_ = false;
  std::optional<std::string> volumeKind_;
  std::optional<std::string> volumeName_;
  std::optional<vorlix::URL> volumePath_;
  std::optional<std::string> volumeType_;
  std::optional<vorlix::UUID> volumeUUID_;
  std::optional<std::string> devicePath_;
  std::optional<vorlix::Data> deviceGUID_;
  std::optional<vorlix::Number> deviceUnit_;
  std::optional<vorlix::Number> mediaBlockSize_;
  std::optional<std::string> mediaName_;
  std::optional<std::string> mediaPath_;
};
