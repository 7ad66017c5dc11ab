// SPDX-License-Identifier: Apache-2.0
/// @file
/// The façade through which a host reaches disks: lists volumes, mounts and unmounts them, tells which Windows one
/// holds and picks the startup disk.
#pragma once

#include <Vorlix/FileManager.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/LogReceiver.h>
#include <Vorlix/foundation/Object.h>
#include <Vorlix/foundation/Task.h>
#include <Vorlix/foundation/URL.h>
#include <Vorlix/foundation/UUID.h>
#include <Vorlix/foundation/Value.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class QDVolume;

/// Hosts use the one shared instance; others may be made and have a state of their own.
///
/// Messages go line by line to the delegate of the shared instance, also those of other instances; without one they are
/// dropped. A few of the startup disk's go to the system's log instead. An absent text in a message is "(null)".
///
/// Threads: an operation blocks the calling thread until it is done, and may drive its run loop; what it reports comes
/// on that thread. The statuses are plain fields: an instance's mounts, unmounts and descriptions are for one thread at
/// a time. `fileManager`, `log` and `delegate` may be set by any thread at any time.
class VORLIX_EXPORT QDDeviceManager : public vorlix::Object {
 public:
  /// Codes of how a volume starts, and of how a startup disk is set.
  enum BootType : uint32_t {
    kBootLegacy = 0,     ///< by BIOS from the volume itself
    kBootEFI = 1,        ///< Windows by EFI, from the first slice of the volume's disk
    kBootMac = 2,        ///< a Mac volume (HFS+ or APFS), from itself
    kBootRoot = 3,       ///< the running system's own volume: there is nothing to set
    kBootUnknown = 4,    ///< set like EFI
    kBootVolumeEFI = 5,  ///< by EFI from the volume itself, for the next start only
  };

  /// The shared instance, made on the first call by any thread, with the default file manager. It lives as long as the
  /// process; `myObj` holds it, too.
  static std::shared_ptr<QDDeviceManager> sharedDeviceManager();

  /// A new instance: statuses 0, flags false, no file manager, no delegate.
  static std::shared_ptr<QDDeviceManager> init();

  ~QDDeviceManager() override;

  // Properties.

  /// Outcome of the last unmount: true if the volume was unmounted or had not been mounted.
  bool didUnmount() const;
  void setDidUnmount(bool value);

  /// Whether any mount has succeeded; no operation sets it back to false.
  bool didMount() const;
  void setDidMount(bool value);

  /// -1 while a mount is pending, 0 after success, 1 after failure; 0 at first.
  int32_t mountStatus() const;
  void setMountStatus(int32_t value);

  /// The same for unmounts. Every look-up of a description sets it to -1.
  int32_t unmountStatus() const;
  void setUnmountStatus(int32_t value);

  std::shared_ptr<vorlix::FileManager> fileManager() const;
  void setFileManager(std::shared_ptr<vorlix::FileManager> value);

  /// Kept for the host; nothing here reads it.
  std::shared_ptr<vorlix::Object> log() const;
  void setLog(std::shared_ptr<vorlix::Object> value);

  /// Whoever is told the messages, if it is a vorlix::LogReceiver. It is not kept alive: a delegate that has gone is
  /// none.
  std::shared_ptr<vorlix::Object> delegate() const;
  void setDelegate(const std::shared_ptr<vorlix::Object>& value);

  /// Gives a line to this instance's delegate, unchanged. Keyword form: `logString:`.
  void logString(const std::string& line);

  // Mounting. A device is named by its BSD name or its path under "/dev/"; an image file or a slice of one by its path.

  /// Asks for a mount with default options and does not wait for it; what becomes of it is not told. Keyword form:
  /// `mountDiskAtDevicePath:`.
  void mountDiskAtDevicePath(const std::string& device);

  /// Mounts a volume and waits, without a limit. For reading and writing it is also hidden from the desktop's lists;
  /// otherwise the system's defaults hold, which need not be read-only. Keyword form:
  /// `mountDiskAtDevicePath:readWrite:`.
  /// @return `didMount`: once any mount of this instance has succeeded the answer is true for every other.
  bool mountDiskAtDevicePath(const std::string& device, bool readWrite);

  /// Unmounts a volume and waits, without a limit. Keyword form: `unmountDiskAtDevice:`.
  /// @return `didUnmount`; for an unknown device what the unmount before it left.
  bool unmountDiskAtDevice(const std::string& device);

  /// Records a mount's outcome: success if the low byte of `flag` is 1. Keyword form: `diskMountStatus:`.
  void diskMountStatus(int32_t flag);

  /// Records an unmount's outcome, likewise. Keyword form: `diskUnmountStatus:`.
  void diskUnmountStatus(int32_t flag);

  // What is known of a device.

  /// Path under "/dev/" of the whole disk that holds the device: "/dev/disk3" for "disk3s2" and "/dev/disk3s2". Of an
  /// image file's slice it is "/dev/" and the file's path, which every operation here takes. Absent if there is none;
  /// "session NULL" or "disk NULL" on standard output says why. Keyword form: `diskFromSlice:`.
  std::optional<std::string> diskFromSlice(const std::string& device);

  /// The description of a device, by the path of its node; keys as in <Vorlix/platform/DiskArbitration.h>. Keyword
  /// form: `diskInfoForDeviceNodeAtURL:`.
  std::optional<vorlix::Dictionary> diskInfoForDeviceNodeAtURL(const vorlix::URL& url);

  /// The description of the volume that is mounted there. Keyword form: `diskInfoForVolumeMountedAtURL:`.
  std::optional<vorlix::Dictionary> diskInfoForVolumeMountedAtURL(const vorlix::URL& url);

  /// The first of these two for a path; a bare name ("disk0s2") is the device's. Keyword form: `diskInfo:`.
  std::optional<vorlix::Dictionary> diskInfo(const std::string& path);

  /// The second for a path. Keyword form: `diskInfoFromMountedPath:`.
  std::optional<vorlix::Dictionary> diskInfoFromMountedPath(const std::string& path);

  /// The type in the description of the volume mounted at `path`, such as "ntfs", "msdos", "hfs". Keyword form:
  /// `fileSystemTypeAtPath:`.
  std::optional<std::string> fileSystemTypeAtPath(const std::string& path);

  /// Always empty. Keyword form: `fileSystemDescriptionAtPath:`.
  std::string fileSystemDescriptionAtPath(const std::string& path);

  /// The machine's model, such as "MacBookPro14,3", without blanks; empty where it is not known.
  std::string currentModelIdentifier();

  // Listing. Every look-up lists anew.

  /// All mounted volumes of disks, in mount order.
  std::vector<std::shared_ptr<QDVolume>> attachedDisks();

  /// The FAT, exFAT and NTFS volumes among them, or those of them with Windows. Keyword form:
  /// `attachedDisksShowingWindowsOnly:`.
  std::vector<std::shared_ptr<QDVolume>> attachedDisksShowingWindowsOnly(bool windowsOnly);

  /// A record of each mounted volume whose whole disk is known, with its names, device, sizes, identifiers and
  /// `volumeType` "disk". `hasWindows` is set for an installed Windows (a folder Windows with a folder System32) and
  /// for its installer (a file sources/boot.wim). A Windows volume without an own item BOOT gets `bootResourcePath` and
  /// `bootMgrPath` from splitBootInfo(). A volume without an identifier of its own gets another random one each time.
  /// Keyword form: `attachedDisksShowingWindowsOnly:showAllDisks:`.
  /// @param windowsOnly   leave out what has no Windows.
  /// @param showAllDisks  do not leave out other file systems than FAT, exFAT and NTFS.
  std::vector<std::shared_ptr<QDVolume>> attachedDisksShowingWindowsOnly(bool windowsOnly, bool showAllDisks);

  // The first FAT, exFAT or NTFS volume that fits, or null.

  /// By the identifier of the medium and the path of the device node. Keyword form: `volumeWithMediaUUID:deviceNode:`.
  std::shared_ptr<QDVolume> volumeWithMediaUUID(const vorlix::UUID& uuid, const vorlix::URL& deviceNode);

  /// Keyword form: `volumeWithMediaUUID:`.
  std::shared_ptr<QDVolume> volumeWithMediaUUID(const vorlix::UUID& uuid);

  /// By name. Keyword form: `volumeForLabel:`.
  std::shared_ptr<QDVolume> volumeForLabel(const std::string& label);

  /// By the device as it is listed, such as "/dev/disk2s3". Keyword form: `volumeForNode:`.
  std::shared_ptr<QDVolume> volumeForNode(const std::string& node);

  /// How many of the listed volumes are NTFS or FAT on an internal device.
  int32_t numberOfMSPartitions();

  /// The one NTFS or FAT volume on an internal device that is not named "EFI"; null if there is none or more than one.
  /// Each device is looked up with "/dev/" before its path.
  std::shared_ptr<QDVolume> builtInBootcampPartition();

  /// Device paths of the services that MyFindEjectableMedia() finds, which on a usual machine are none.
  std::vector<std::string> ejectableMedia();

  /// Logs the EFI System Partitions in the I/O registry. @return always absent.
  std::optional<std::vector<std::shared_ptr<QDVolume>>> attachedDisksFromIORegistry();

  /// Properties of the APFS volumes in the I/O registry, but for dates and sets, which a Value has no form for.
  std::vector<vorlix::Dictionary> attachedAPFSVolumesFromIORegistry();

  /// Where a listed FAT, exFAT or NTFS device is mounted. Keyword form: `pathForDevice:`.
  std::optional<std::string> pathForDevice(const std::string& device);

  // Windows. Names are compared without regard to the case of ASCII letters, and returned as the volume spells them;
  // only the names are looked at.

  /// The folder Windows at a volume's root. Keyword form: `windowsFolderFromVolume:`.
  static std::optional<std::string> windowsFolderFromVolume(const std::optional<std::string>& path);

  /// System32 in it. Keyword form: `system32FolderFromVolume:`.
  static std::optional<std::string> system32FolderFromVolume(const std::optional<std::string>& path);

  /// The folder sources at a volume's root. Keyword form: `windowsSourcesFolderFromVolume:`.
  static std::optional<std::string> windowsSourcesFolderFromVolume(const std::optional<std::string>& path);

  /// The file boot.wim in it. Keyword form: `bootWIMFileFromVolume:`.
  static std::optional<std::string> bootWIMFileFromVolume(const std::optional<std::string>& path);

  /// The boot files of a Windows that starts from a partition "System Reserved" of the same disk. Keyword form:
  /// `splitBootInfo:fullList:`.
  /// @return "bootFolderPath" and "bootmgrPath" of that partition. If no volume of the list is one, of the list's last
  ///         volume; both are empty for an empty list.
  vorlix::Dictionary splitBootInfo(const std::string& device, const std::vector<std::shared_ptr<QDVolume>>& fullList);

  /// Which Windows a volume holds, read from its registry hive with the host's tool "registry_lookup" and from its
  /// setup log: "product" (mapped to "Windows 10", "Windows 8+" or "Windows 7" if it is one), and "edition",
  /// "buildLabEx" and "currentBuildNumber" as the registry has them, each empty if it could not be read; "bootenv" if
  /// the setup log exists. Without System32 four texts are there, empty, and no "edition". Keyword form:
  /// `versionOfWindowsFromVolume:`.
  vorlix::Dictionary versionOfWindowsFromVolume(const std::shared_ptr<QDVolume>& volume);

  /// Whether that product is Windows 8 or 10 by its name. False for null. Keyword form:
  /// `hasWindows8OrLaterFromVolume:`.
  bool hasWindows8OrLaterFromVolume(const std::shared_ptr<QDVolume>& volume);

  // Startup disk.

  /// Keyword form: `bootTypeForDisk:`. @return kBootLegacy, kBootEFI, kBootMac, kBootRoot or kBootUnknown.
  uint32_t bootTypeForDisk(const std::shared_ptr<QDVolume>& volume);

  /// Makes a volume the startup disk with "/usr/sbin/bless". Without the administrator as real user the command is
  /// formed but not run. Whether the tool succeeds is not looked at. Keyword form:
  /// `selectStartupDisk:withType:nextOnly:`.
  /// @param type      a code of BootType.
  /// @param nextOnly  only for the next start; a volume whose `isRemovable` is set is chosen for good all the same.
  /// @return false for kBootRoot, for a code of 6 and more, and, if the command would be run, for a device whose name
  /// is
  ///         no plain word to the shell: nothing is run then. Else true.
  bool selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type, bool nextOnly);

  /// For the next start only. Keyword form: `selectStartupDisk:withType:`.
  bool selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type);

  /// For the next start only, with the code of bootTypeForDisk(). Keyword form: `selectNextOnlyStartupDisk:`.
  bool selectNextOnlyStartupDisk(const std::shared_ptr<QDVolume>& volume);

  /// isSIPEnabled().
  bool checkForSIP();

  /// Whether System Integrity Protection stands in the way, by what "/usr/bin/csrutil status" prints. False where this
  /// instance's file manager sees no such tool. @throws std::system_error if it cannot be launched.
  bool isSIPEnabled();

  /// Runs a program and returns what it writes to standard output, until that is closed; absent if it is not UTF-8.
  /// Standard error is not read. Keyword form: `standardOutputForTask:`. @throws std::system_error if it cannot be
  /// launched.
  std::optional<std::string> standardOutputForTask(const vorlix::Task& task);

  /// False for no text, and for one with "NVRAM Protections: disabled" or "System Integrity Protection status:
  /// disabled" in it. Keyword form: `isSIPEnabledFromStandardOutput:`.
  bool isSIPEnabledFromStandardOutput(const std::optional<std::string>& output);

  /// Whether the protection is on, as QDSUtilities sees it, and the device is on the running system's disk. Keyword
  /// form: `checkForSIPForDevice:`.
  bool checkForSIPForDevice(const std::string& device);

  /// Whether a device is on the same physical device as the volume mounted at "/". Keyword form: `isOnStartupDisk:`.
  bool isOnStartupDisk(const std::string& device);

  /// Does nothing.
  void showSIPInfo();

  /// Whether this machine can start Windows by EFI: false if its model is in the list of the host's resource
  /// "BeforeEFI.plist", an array of texts.
  bool isEFIWindowsBootable();

 protected:
  QDDeviceManager();

 private:
  bool didUnmount_ = false;
  bool didMount_ = false;
  int32_t mountStatus_ = 0;
  int32_t unmountStatus_ = 0;

  mutable std::mutex objects_;  // guards the three below
  std::shared_ptr<vorlix::FileManager> fileManager_;
  std::shared_ptr<vorlix::Object> log_;
  std::weak_ptr<vorlix::Object> delegate_;
};

/// The shared instance for plain functions; null until sharedDeviceManager() has been called once. That call sets it,
/// so a thread that reads it beside the first call needs a lock of its own.
VORLIX_EXPORT extern std::shared_ptr<QDDeviceManager> myObj;
