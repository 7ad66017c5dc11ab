// SPDX-License-Identifier: Apache-2.0
/// @file
/// A record of what the system's disk arbitration knows about a disk or volume.
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

// Names of the fields, for hosts that keep their own records. The first six are also keys of the archive.
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

/// An immutable record of one disk or volume, made from its description. Threads may share it.
///
/// Each field holds the value of the description's key of the same name (kDescriptionVolumeKind and so on in
/// <Vorlix/platform/DiskArbitration.h>). If the key is missing or its value has another type, the field is absent or
/// false.
///
/// An archive contains the six volume fields in this order: "volumeKind", "volumeMountable" (an inline boolean),
/// "volumeName", "volumePath" (URL), "volumeType" and "volumeUUID" (UUID). In a decoded record all other fields are
/// absent or false.
class VORLIX_EXPORT QDDiskInfo : public vorlix::Object, public vorlix::Coding {
 public:
  static constexpr const char* kArchiveClass = "QDDiskInfo";  ///< name of the class in archives

  static constexpr int64_t kVolumeItem = 0;  ///< a volume, named by its mount point
  static constexpr int64_t kDeviceItem = 1;  ///< a device, named by its node, such as /dev/disk2

  /// Returns the disk that a URL names. Opens its own connection to disk arbitration and closes it again. Keyword form:
  /// `diskForItemType:atURL:`.
  /// @param itemType  how `url` names the disk: kVolumeItem or kDeviceItem.
  /// @return the disk; null for any other type, for an unknown path, and if there is no connection.
  static std::shared_ptr<vorlix::Disk> diskForItemType(int64_t itemType, const vorlix::URL& url);

  /// Returns a record of the device whose node is at `url`, or null if the device is unknown. Keyword form:
  /// `infoForDeviceAtURL:`.
  static std::shared_ptr<QDDiskInfo> infoForDeviceAtURL(const vorlix::URL& url);

  /// Returns a record of the volume that is mounted at `url`, or null if there is none. Keyword form:
  /// `infoForVolumeAtURL:`.
  static std::shared_ptr<QDDiskInfo> infoForVolumeAtURL(const vorlix::URL& url);

  /// Returns a record of what is known about a disk now. If the disk is null or has no description, all fields of the
  /// record are absent or false. Keyword form: `initWithDiskArbitrationDisk:`.
  static std::shared_ptr<QDDiskInfo> initWithDiskArbitrationDisk(const std::shared_ptr<vorlix::Disk>& disk);

  /// Returns a record of a description. Keyword form: `initWithDiskArbitrationInfo:`.
  static std::shared_ptr<QDDiskInfo> initWithDiskArbitrationInfo(const vorlix::Dictionary& description);

  /// Returns a record read from an archive. If an entry is missing or has another class, its field is absent or false.
  /// Keyword form: `initWithCoder:`.
  static std::shared_ptr<QDDiskInfo> initWithCoder(vorlix::KeyedUnarchiver& coder);

  /// Returns true: the class of each entry is checked when an archive is read.
  static bool supportsSecureCoding() { return true; }

  /// Returns the names of this class and its base class in archives.
  std::vector<std::string> archiveClasses() const override;

  /// Writes the six volume fields to an archive. Keyword form: `encodeWithCoder:`.
  void encodeWithCoder(vorlix::KeyedArchiver& coder) const override;

  /// Whether the volume can be mounted.
  bool volumeMountable() const { return volumeMountable_; }

  /// Whether the medium can be ejected.
  bool mediaEjectable() const { return mediaEjectable_; }

  /// File-system kind, such as "hfs" or "msdos".
  const std::optional<std::string>& volumeKind() const { return volumeKind_; }

  /// Name of the volume.
  const std::optional<std::string>& volumeName() const { return volumeName_; }

  /// Mount point.
  const std::optional<vorlix::URL>& volumePath() const { return volumePath_; }

  /// Description of the file system's type.
  const std::optional<std::string>& volumeType() const { return volumeType_; }

  /// Identifier of the volume, as a UUID, not as a string.
  const std::optional<vorlix::UUID>& volumeUUID() const { return volumeUUID_; }

  /// Path of the device in the I/O registry.
  const std::optional<std::string>& devicePath() const { return devicePath_; }

  /// Identifier of the device, as bytes.
  const std::optional<vorlix::Data>& deviceGUID() const { return deviceGUID_; }

  /// Unit number of the device: 2 for disk2.
  const std::optional<vorlix::Number>& deviceUnit() const { return deviceUnit_; }

  /// Block size of the medium in bytes.
  const std::optional<vorlix::Number>& mediaBlockSize() const { return mediaBlockSize_; }

  /// Name of the medium.
  const std::optional<std::string>& mediaName() const { return mediaName_; }

  /// Path of the medium in the I/O registry.
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
