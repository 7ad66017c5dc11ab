// SPDX-License-Identifier: Apache-2.0
/// @file
/// A record of one item that a host lists for the user: a mounted volume, a whole disk or a disk-image file.
#pragma once

#include <Vorlix/foundation/AttributedString.h>
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

class QDTaskWrapperWithBlocks;

namespace vorlix {

/// Name of the notification that a record posts when its size changes. The notification's object is the record.
inline constexpr const char* kDisksChangedNotification = "QDSDisksChanged";

}  // namespace vorlix

/// A plain record that the device manager or the host creates and fills.
///
/// QDDeviceManager's list of attached disks fills the paths, names, sizes and identifiers, `fileSystemType`,
/// `volumeType`, `hasWindows` and the boot paths. Fields that it does not fill, `isRemovable` among them, are for the
/// host to set.
///
/// Every object field may be absent. Ownership: fields that are passed by value are copied; `mbr`, `partitionID`,
/// `info` and `wrapperArray` are shared, so the record and its host see the same object.
///
/// Threads: a getter of an object field returns a complete value, which stays valid while another thread replaces the
/// field. This does not hold for `wrapperArray`, the flags and `filesystemSize`. Use those, and appending, copying,
/// coding and updateSize(), from one thread at a time.
///
/// Archives: the keys are a format between processes. What an archive contains is not symmetric, on purpose:
///
// clang-format off
/// | key | written as | read as |
/// |---|---|---|
/// | mbr | bytes | growable copy |
/// | partitionID, info | text | growable copy |
/// | filePath, device, drivePath, diskName, vmUsername, humanSize, freeSpace, totalSize | text | the same |
/// | usageDescription | styled text | the same |
/// | isVM | inline boolean | the value of a number object |
/// | vmPassword | text: UTF-8 in base64 | never: the key read is the record's own password, and a new record has none |
/// | fileSystemType | text | never: the type is taken from an entry "MVMapName", which nobody writes |
/// | isBootable, isRemovable | number object with a boolean | its boolean value |
/// | volumeUUID, mediaUUID, mediaContentUUID | UUID | the same |
/// | volumeType | not written | text |
// clang-format on
///
/// No other field is archived. In a decoded record those fields are absent, false or 0; `mbr` is absent too if it was
/// absent in the archived record. The `mbr` and `partitionID` of a copy (copyWithZone()) are archived as immutable
/// bytes and text, those of other records as growable.
class VORLIX_EXPORT QDVolume : public vorlix::Object, public vorlix::Coding {
 public:
  static constexpr const char* kArchiveClass = "QDVolume";  ///< name of the class in archives

  /// Returns a new record: all flags are false, `filesystemSize` is 0, `mbr` is an empty buffer, and every other object
  /// field is absent.
  static std::shared_ptr<QDVolume> init();

  /// Returns a record read from an archive. If an entry is missing or unreadable, its field is absent or false. Keyword
  /// form: `initWithCoder:`.
  static std::shared_ptr<QDVolume> initWithCoder(vorlix::KeyedUnarchiver& coder);

  /// Returns true: the class of each entry is checked when an archive is read.
  static bool supportsSecureCoding() { return true; }

  ~QDVolume() override;

  /// Returns the names of this class and its base class in archives.
  std::vector<std::string> archiveClasses() const override;

  /// Writes the fields in the table above to an archive. Keyword form: `encodeWithCoder:`.
  void encodeWithCoder(vorlix::KeyedArchiver& coder) const override;

  /// Returns a record of the same class with its own values. `info` is shared with this record. `mbr` and `partitionID`
  /// are immutable copies (absent if they are absent here): appending to them does nothing. These fields are not
  /// copied: `filesystemSize`, `hasWindows`, `hasWindows8orGreater`, `isWritable`, `mediaSize`, `foundWindowsVersion`,
  /// `installedOS`, `networkShare`, `bootResourcePath`, `bootMgrPath` and `wrapperArray`. Keyword form:
  /// `copyWithZone:`.
  std::shared_ptr<QDVolume> copyWithZone() const;

  /// Appends bytes to `mbr`. Does nothing if `mbr` is absent or immutable. Keyword form: `appendMBRData:`.
  void appendMBRData(const std::vector<uint8_t>& bytes);

  /// Appends text to `partitionID` and creates it if it is absent. Does nothing if it is immutable. Keyword form:
  /// `appendpartitionIDData:`.
  void appendpartitionIDData(const std::string& text);

  /// Appends text to `info` and creates it if it is absent. Keyword form: `appendInfo:`.
  void appendInfo(const std::string& text);

  /// Returns a description of the record in several lines, one for each field of its list that is present. Bytes are
  /// shown in hexadecimal, in groups of four: "<00010203 04>".
  std::string description() const;

  /// Returns `diskName` and `humanSize` as "name (size bytes)". An absent field is shown as "(null)". The word "bytes"
  /// is there even if the size has its own unit.
  std::string diskLabelWithSize() const;

  /// Starts to measure the unpacked size of a compressed image file. Returns immediately; the measurement goes on while
  /// the run loop of the calling thread runs in the default mode.
  ///
  /// Does nothing unless `filePath` ends in ".gz" or ".zip" in lower case and `totalSize` is unknown, that is, its
  /// integer value is below 1.
  ///
  /// `totalSize` becomes "-1" at the start. After that it becomes each piece of output of "gunzip -c", or of the host's
  /// resource "unzip", piped into "wc -c". After each change kDisksChangedNotification is posted on the calling thread.
  /// `wrapperArray` holds the process runner until its output ends; the runner keeps this record alive.
  /// @warning The path is put between double quotes in the shell's command line, without escaping.
  /// @throws std::system_error  if the shell cannot be launched. Then the runner stays in `wrapperArray`, for the host
  ///                            to remove, and `totalSize` stays "-1".
  void updateSize();

  /// Whether the item is bootable.
  bool isBootable() const;
  void setIsBootable(bool value);  ///< @copydoc isBootable()

  /// Whether the item is a removable medium.
  bool isRemovable() const;
  void setIsRemovable(bool value);  ///< @copydoc isRemovable()

  /// Whether the item is a virtual-machine target.
  bool isVM() const;
  void setIsVM(bool value);  ///< @copydoc isVM()

  /// A flag for the host's list. The library copies it but never sets it to true.
  bool showLine() const;
  void setShowLine(bool value);  ///< @copydoc showLine()

  /// Whether the volume holds an installed Windows or its installer.
  bool hasWindows() const;
  void setHasWindows(bool value);  ///< @copydoc hasWindows()

  /// Whether that Windows is Windows 8 or later.
  bool hasWindows8orGreater() const;
  void setHasWindows8orGreater(bool value);  ///< @copydoc hasWindows8orGreater()

  /// Whether the volume can be written.
  bool isWritable() const;
  void setIsWritable(bool value);  ///< @copydoc isWritable()

  /// Bytes of a Master Boot Record, collected by appendMBRData().
  std::shared_ptr<std::vector<uint8_t>> mbr() const;
  void setMbr(std::shared_ptr<std::vector<uint8_t>> value);  ///< @copydoc mbr()

  /// Text of a partition identifier, collected by appendpartitionIDData().
  std::shared_ptr<std::string> partitionID() const;
  void setPartitionID(std::shared_ptr<std::string> value);  ///< @copydoc partitionID()

  /// Size of the file system in bytes.
  int64_t filesystemSize() const;
  void setFilesystemSize(int64_t value);  ///< @copydoc filesystemSize()

  /// Path of the item: the mount point of a volume, or an image file.
  std::optional<std::string> filePath() const;
  void setFilePath(std::optional<std::string> value);  ///< @copydoc filePath()

  /// Device node of the whole disk that holds the volume.
  std::optional<std::string> drivePath() const;
  void setDrivePath(std::optional<std::string> value);  ///< @copydoc drivePath()

  /// Device node under "/dev/" that the volume is mounted from.
  std::optional<std::string> device() const;
  void setDevice(std::optional<std::string> value);  ///< @copydoc device()

  /// Free-form notes about the item, collected by appendInfo().
  std::shared_ptr<std::string> info() const;
  void setInfo(std::shared_ptr<std::string> value);  ///< @copydoc info()

  /// Name of the volume as shown to the user.
  std::optional<std::string> diskName() const;
  void setDiskName(std::optional<std::string> value);  ///< @copydoc diskName()

  /// Description of what the item is used for, as styled text.
  std::optional<vorlix::AttributedString> usageDescription() const;
  void setUsageDescription(std::optional<vorlix::AttributedString> value);  ///< @copydoc usageDescription()

  /// User name for the virtual-machine target.
  std::optional<std::string> vmUsername() const;
  void setVmUsername(std::optional<std::string> value);  ///< @copydoc vmUsername()

  /// Password for the virtual-machine target.
  std::optional<std::string> vmPassword() const;
  void setVmPassword(std::optional<std::string> value);  ///< @copydoc vmPassword()

  /// Size for display, in the form of stringWithHumanReadableInt().
  std::optional<std::string> humanSize() const;
  void setHumanSize(std::optional<std::string> value);  ///< @copydoc humanSize()

  /// Type of the file system, such as "ntfs", "msdos" or "exfat".
  std::optional<std::string> fileSystemType() const;
  void setFileSystemType(std::optional<std::string> value);  ///< @copydoc fileSystemType()

  /// Free space in bytes, as decimal text.
  std::optional<std::string> freeSpace() const;
  void setFreeSpace(std::optional<std::string> value);  ///< @copydoc freeSpace()

  /// Total size in bytes, as decimal text. It is "-1" while updateSize() measures, then the output of "wc -c".
  std::optional<std::string> totalSize() const;
  void setTotalSize(std::optional<std::string> value);  ///< @copydoc totalSize()

  /// Kind of item. The list of attached disks sets "disk".
  std::optional<std::string> volumeType() const;
  void setVolumeType(std::optional<std::string> value);  ///< @copydoc volumeType()

  /// Size of the whole medium for display.
  std::optional<std::string> mediaSize() const;
  void setMediaSize(std::optional<std::string> value);  ///< @copydoc mediaSize()

  /// Version of the Windows that was found on the volume.
  std::optional<vorlix::Number> foundWindowsVersion() const;
  void setFoundWindowsVersion(std::optional<vorlix::Number> value);  ///< @copydoc foundWindowsVersion()

  /// Size of the whole medium in bytes.
  std::optional<vorlix::Number> mediaSizeRaw() const;
  void setMediaSizeRaw(std::optional<vorlix::Number> value);  ///< @copydoc mediaSizeRaw()

  /// Block size of the medium in bytes.
  std::optional<vorlix::Number> mediaBlockSize() const;
  void setMediaBlockSize(std::optional<vorlix::Number> value);  ///< @copydoc mediaBlockSize()

  /// Identifier of the volume.
  std::optional<vorlix::UUID> volumeUUID() const;
  void setVolumeUUID(std::optional<vorlix::UUID> value);  ///< @copydoc volumeUUID()

  /// Identifier of the medium.
  std::optional<vorlix::UUID> mediaUUID() const;
  void setMediaUUID(std::optional<vorlix::UUID> value);  ///< @copydoc mediaUUID()

  /// Identifier of the medium's content: the partition type.
  std::optional<vorlix::UUID> mediaContentUUID() const;
  void setMediaContentUUID(std::optional<vorlix::UUID> value);  ///< @copydoc mediaContentUUID()

  /// Name of the installed operating system.
  std::optional<std::string> installedOS() const;
  void setInstalledOS(std::optional<std::string> value);  ///< @copydoc installedOS()

  /// Network share that holds the item.
  std::optional<std::string> networkShare() const;
  void setNetworkShare(std::optional<std::string> value);  ///< @copydoc networkShare()

  /// Path of the folder with the boot files.
  std::optional<std::string> bootResourcePath() const;
  void setBootResourcePath(std::optional<std::string> value);  ///< @copydoc bootResourcePath()

  /// Path of the Windows boot manager.
  std::optional<std::string> bootMgrPath() const;
  void setBootMgrPath(std::optional<std::string> value);  ///< @copydoc bootMgrPath()

  /// Runners of the processes that are measuring this record's size.
  std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> wrapperArray() const;
  /// @copydoc wrapperArray()
  void setWrapperArray(std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> value);

 protected:
  /// Creates a record whose fields, including `mbr`, are all absent, false or 0.
  QDVolume();

  /// Returns a new record like that of init(), of this record's class, for copyWithZone() to fill. Derived classes
  /// override it.
  virtual std::shared_ptr<QDVolume> newRecord() const;

  /// Reads the archive's entries into this record, for initWithCoder() of this class and of derived classes.
  void readEntries(vorlix::KeyedUnarchiver& coder);

 private:
  struct Fields;
  std::unique_ptr<Fields> fields_;
};
