// SPDX-License-Identifier: Apache-2.0
/// @file
/// The record of one item that a host offers for choice: a mounted volume, a whole disk or a disk-image file.
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

/// Name of the notification that a record posts when its size changes, with the record as object.
inline constexpr const char* kDisksChangedNotification = "QDSDisksChanged";

}  // namespace vorlix

/// A plain record, made and filled by the device manager or the host.
///
/// Every object field may be absent. Fields given by value are copied; `mbr`, `partitionID`, `info` and `wrapperArray`
/// are shared: the record holds what it is given.
///
/// Threads: a getter of an object field gives a whole value that stays valid while another thread replaces the field;
/// so it is for all but `wrapperArray`, which is plain like the flags. Everything else (appending, copying, coding,
/// updateSize()) is for one thread at a time.
///
/// Archive: keys are a format between processes. What the archive keeps, and how, is asymmetric in places on purpose:
///
// clang-format off
/// | key | as | read back |
/// |---|---|---|
/// | mbr | bytes | growable copy |
/// | partitionID, info | text | growable copy |
/// | filePath, device, drivePath, diskName, vmUsername, humanSize, freeSpace, totalSize | text | as it is |
/// | usageDescription | styled text | as it is |
/// | isVM | plain truth value | its value as a number object |
/// | vmPassword | text: UTF-8 in base64 | never: the key looked up is the record's own password, which a new one has not |
/// | fileSystemType | text | never: "MVMapName", which nobody writes, is asked for it |
/// | isBootable, isRemovable | number object with a truth value | its truth value |
/// | volumeUUID, mediaUUID, mediaContentUUID | UUID | as it is |
/// | volumeType | not written | text |
// clang-format on
///
/// All other fields are not archived; a decoded record has them absent, false or 0, `mbr` included if it was absent. A
/// copy's `mbr` and `partitionID` are archived as immutable bytes and text, others' as growable.
class VORLIX_EXPORT QDVolume : public vorlix::Object, public vorlix::Coding {
 public:
  static constexpr const char* kArchiveClass = "QDVolume";

  /// All flags false, `filesystemSize` 0, `mbr` an empty buffer, every other object field absent.
  static std::shared_ptr<QDVolume> init();

  /// Keyword form: `initWithCoder:`. An entry that is missing or unreadable leaves its field absent or false.
  static std::shared_ptr<QDVolume> initWithCoder(vorlix::KeyedUnarchiver& coder);

  /// True: archives are read with the class of each entry checked.
  static bool supportsSecureCoding() { return true; }

  ~QDVolume() override;

  std::vector<std::string> archiveClasses() const override;

  /// Keyword form: `encodeWithCoder:`.
  void encodeWithCoder(vorlix::KeyedArchiver& coder) const override;

  /// A record of the same class with its own values. `info` is shared with this record. `mbr` and `partitionID` are
  /// immutable copies (absent if they are absent here): appending to them does nothing. Not copied: `filesystemSize`,
  /// `hasWindows`, `hasWindows8orGreater`, `isWritable`, `mediaSize`, `foundWindowsVersion`, `installedOS`,
  /// `networkShare`, `bootResourcePath`, `bootMgrPath` and `wrapperArray`. Keyword form: `copyWithZone:`.
  std::shared_ptr<QDVolume> copyWithZone() const;

  /// Appends to `mbr`; nothing happens if it is absent or immutable. Keyword form: `appendMBRData:`.
  void appendMBRData(const std::vector<uint8_t>& bytes);

  /// Appends to `partitionID`, which is made if it is absent; nothing happens if it is immutable. Keyword form:
  /// `appendpartitionIDData:`.
  void appendpartitionIDData(const std::string& text);

  /// Appends to `info`, which is made if it is absent. Keyword form: `appendInfo:`.
  void appendInfo(const std::string& text);

  /// Several lines, one for each field that is present. Bytes are shown as "<00010203 04>": hexadecimal in groups of
  /// four.
  std::string description() const;

  /// `diskName` and `humanSize` as "name (size bytes)"; an absent one is "(null)". The word "bytes" stands there also
  /// after a size with its unit.
  std::string diskLabelWithSize() const;

  /// Measures the unpacked size of a compressed image file, whose name ends in ".gz" or ".zip" in lower case and whose
  /// `totalSize` is not known yet (its integer value is below 1). Returns at once; the work goes on as this thread's
  /// run loop runs in the default mode.
  ///
  /// `totalSize` becomes "-1" at the start and then each piece of what "gunzip -c" or the host's resource "unzip",
  /// piped into "wc -c", prints. After each change kDisksChangedNotification is posted on this thread. The process's
  /// runner is held in `wrapperArray` until its output ends; it keeps this record alive. The path stands in double
  /// quotes in the shell's command line, without escaping. @throws std::system_error if the shell cannot be launched;
  /// the runner then stays in `wrapperArray`, for the host to remove, and `totalSize` stays "-1".
  void updateSize();

  /// The item can be started from.
  bool isBootable() const;
  void setIsBootable(bool value);

  /// Removable media.
  bool isRemovable() const;
  void setIsRemovable(bool value);

  /// The item is a virtual-machine target.
  bool isVM() const;
  void setIsVM(bool value);

  /// For the host's list; the library never sets it.
  bool showLine() const;
  void setShowLine(bool value);

  /// A Windows installation was found on the volume.
  bool hasWindows() const;
  void setHasWindows(bool value);

  /// That installation is Windows 8 or later.
  bool hasWindows8orGreater() const;
  void setHasWindows8orGreater(bool value);

  /// The volume can be written.
  bool isWritable() const;
  void setIsWritable(bool value);

  /// Collected master-boot-record bytes, growable.
  std::shared_ptr<std::vector<uint8_t>> mbr() const;
  void setMbr(std::shared_ptr<std::vector<uint8_t>> value);

  /// Collected partition identifier text, growable.
  std::shared_ptr<std::string> partitionID() const;
  void setPartitionID(std::shared_ptr<std::string> value);

  /// File-system size in bytes.
  int64_t filesystemSize() const;
  void setFilesystemSize(int64_t value);

  /// Path of the item: a volume's mount point, or an image file.
  std::optional<std::string> filePath() const;
  void setFilePath(std::optional<std::string> value);

  /// The whole-disk device of the volume's slice.
  std::optional<std::string> drivePath() const;
  void setDrivePath(std::optional<std::string> value);

  /// The device node that the volume is mounted from, under "/dev/".
  std::optional<std::string> device() const;
  void setDevice(std::optional<std::string> value);

  /// Free-form notes collected about the item, growable.
  std::shared_ptr<std::string> info() const;
  void setInfo(std::shared_ptr<std::string> value);

  /// Volume name as shown to the user.
  std::optional<std::string> diskName() const;
  void setDiskName(std::optional<std::string> value);

  /// Description of the item's use, with attributes.
  std::optional<vorlix::AttributedString> usageDescription() const;
  void setUsageDescription(std::optional<vorlix::AttributedString> value);

  /// User name for the virtual-machine target.
  std::optional<std::string> vmUsername() const;
  void setVmUsername(std::optional<std::string> value);

  /// Password for the virtual-machine target.
  std::optional<std::string> vmPassword() const;
  void setVmPassword(std::optional<std::string> value);

  /// Size for display, as stringWithHumanReadableInt() makes it.
  std::optional<std::string> humanSize() const;
  void setHumanSize(std::optional<std::string> value);

  /// "ntfs", "msdos", "exfat", ....
  std::optional<std::string> fileSystemType() const;
  void setFileSystemType(std::optional<std::string> value);

  /// Free bytes as decimal text.
  std::optional<std::string> freeSpace() const;
  void setFreeSpace(std::optional<std::string> value);

  /// Total bytes as decimal text; "-1" while updateSize() measures, then what "wc -c" printed.
  std::optional<std::string> totalSize() const;
  void setTotalSize(std::optional<std::string> value);

  /// Kind of item; the disk listing sets "disk".
  std::optional<std::string> volumeType() const;
  void setVolumeType(std::optional<std::string> value);

  /// Size of the whole medium for display.
  std::optional<std::string> mediaSize() const;
  void setMediaSize(std::optional<std::string> value);

  /// Windows version found on the volume.
  std::optional<vorlix::Number> foundWindowsVersion() const;
  void setFoundWindowsVersion(std::optional<vorlix::Number> value);

  /// Size of the whole medium in bytes.
  std::optional<vorlix::Number> mediaSizeRaw() const;
  void setMediaSizeRaw(std::optional<vorlix::Number> value);

  /// Block size of the medium in bytes.
  std::optional<vorlix::Number> mediaBlockSize() const;
  void setMediaBlockSize(std::optional<vorlix::Number> value);

  /// Volume identifier.
  std::optional<vorlix::UUID> volumeUUID() const;
  void setVolumeUUID(std::optional<vorlix::UUID> value);

  /// Medium identifier.
  std::optional<vorlix::UUID> mediaUUID() const;
  void setMediaUUID(std::optional<vorlix::UUID> value);

  /// Identifier of the medium's content: the partition type.
  std::optional<vorlix::UUID> mediaContentUUID() const;
  void setMediaContentUUID(std::optional<vorlix::UUID> value);

  /// Name of the installed operating system.
  std::optional<std::string> installedOS() const;
  void setInstalledOS(std::optional<std::string> value);

  /// Network share that the item lives on.
  std::optional<std::string> networkShare() const;
  void setNetworkShare(std::optional<std::string> value);

  /// Folder of boot resources on the volume.
  std::optional<std::string> bootResourcePath() const;
  void setBootResourcePath(std::optional<std::string> value);

  /// Path of the Windows boot manager on the volume.
  std::optional<std::string> bootMgrPath() const;
  void setBootMgrPath(std::optional<std::string> value);

  /// Process runners that measure this record's size now.
  std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> wrapperArray() const;
  void setWrapperArray(std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> value);

 protected:
  /// Everything absent, false or 0, `mbr` included.
  QDVolume();

  /// What init() makes, of the receiver's own class; copyWithZone() fills it. Classes below replace it.
  virtual std::shared_ptr<QDVolume> newRecord() const;

  /// Reads the archive's entries into this record, for initWithCoder() here and in classes below.
  void readEntries(vorlix::KeyedUnarchiver& coder);

 private:
  struct Fields;
  std::unique_ptr<Fields> fields_;
};
