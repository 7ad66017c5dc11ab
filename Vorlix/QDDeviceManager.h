// SPDX-License-Identifier: Apache-2.0
/// @file
/// The class through which a host works with disks: it lists volumes, mounts and unmounts them, finds out which Windows
/// a volume holds, and selects the startup disk.
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

/// Lists, mounts and examines volumes, and selects the startup disk. Hosts use the shared instance; a host may create
/// other instances, which have their own state.
///
/// Messages go line by line to the delegate of the shared instance, including the messages of other instances. Without
/// a delegate they are dropped. A few messages about the startup disk go to the system log instead. An absent string
/// appears in a message as "(null)".
///
/// Threads: an operation blocks the calling thread until it is finished and may run that thread's run loop; its
/// messages come on that thread. The statuses are plain fields, so use the mounts, unmounts and descriptions of one
/// instance from one thread at a time. Any thread may set `fileManager`, `log` and `delegate` at any time.
class VORLIX_EXPORT QDDeviceManager : public vorlix::Object {
 public:
  /// How a volume starts, and how a startup disk is set.
  enum BootType : uint32_t {
    kBootLegacy = 0,     ///< by BIOS, from the volume itself
    kBootEFI = 1,        ///< Windows by EFI, from slice 1 of the volume's disk
    kBootMac = 2,        ///< a Mac volume (HFS+ or APFS), from the volume itself
    kBootRoot = 3,       ///< the volume of the running system: there is nothing to set
    kBootUnknown = 4,    ///< not known; set like kBootEFI
    kBootVolumeEFI = 5,  ///< by EFI from the volume itself, for the next start only
  };

  /// Returns the shared instance. The first call, on any thread, creates it with the default file manager. It exists
  /// until the process ends; `myObj` refers to it too.
  static std::shared_ptr<QDDeviceManager> sharedDeviceManager();

  /// Returns a new instance: the statuses are 0, the flags are false, and it has no file manager and no delegate.
  static std::shared_ptr<QDDeviceManager> init();

  ~QDDeviceManager() override;

  // Properties.

  /// Outcome of the last unmount: true if the volume was unmounted, or was not mounted before.
  bool didUnmount() const;
  void setDidUnmount(bool value);  ///< @copydoc didUnmount()

  /// Whether any mount has succeeded. No operation sets it back to false.
  bool didMount() const;
  void setDidMount(bool value);  ///< @copydoc didMount()

  /// Status of the last mount that was waited for: -1 while it is pending, 0 after success, 1 after failure. It is 0 at
  /// first, and stays -1 if the device is unknown.
  int32_t mountStatus() const;
  void setMountStatus(int32_t value);  ///< @copydoc mountStatus()

  /// Status of the last unmount, with the same values. Every lookup of a description sets it to -1.
  int32_t unmountStatus() const;
  void setUnmountStatus(int32_t value);  ///< @copydoc unmountStatus()

  /// The file manager that isSIPEnabled() looks for its tool with.
  std::shared_ptr<vorlix::FileManager> fileManager() const;
  void setFileManager(std::shared_ptr<vorlix::FileManager> value);  ///< @copydoc fileManager()

  /// An object that is kept for the host. The library does not use it.
  std::shared_ptr<vorlix::Object> log() const;
  void setLog(std::shared_ptr<vorlix::Object> value);  ///< @copydoc log()

  /// The object that receives the messages, if it is a vorlix::LogReceiver. The manager does not own it; it is null
  /// after its last owner has released it.
  std::shared_ptr<vorlix::Object> delegate() const;
  void setDelegate(const std::shared_ptr<vorlix::Object>& value);  ///< @copydoc delegate()

  /// Passes a line unchanged to the delegate of this instance. Keyword form: `logString:`.
  void logString(const std::string& line);

  // Mounting. A device is named by its BSD name or its path under "/dev/", a disk-image file or a slice of it by its
  // path.

  /// Requests a mount with default options and does not wait for it. The outcome is not reported and no status changes.
  /// Keyword form: `mountDiskAtDevicePath:`.
  void mountDiskAtDevicePath(const std::string& device);

  /// Mounts a volume and waits for the outcome, without a time limit. Keyword form: `mountDiskAtDevicePath:readWrite:`.
  /// @param readWrite  true mounts the volume for reading and writing and hides it from the desktop. False leaves both
  ///                   to the system's defaults, which need not be read-only.
  /// @return `didMount`: once any mount of this instance has succeeded, the result is true for every later call.
  bool mountDiskAtDevicePath(const std::string& device, bool readWrite);

  /// Unmounts a volume and waits for the outcome, without a time limit. Keyword form: `unmountDiskAtDevice:`.
  /// @return `didUnmount`. For an unknown device that is the outcome of the unmount before it.
  bool unmountDiskAtDevice(const std::string& device);

  /// Records the outcome of a mount. If the low byte of `flag` is 1, `mountStatus` becomes 0 and `didMount` true;
  /// otherwise `mountStatus` becomes 1. Keyword form: `diskMountStatus:`.
  void diskMountStatus(int32_t flag);

  /// Records the outcome of an unmount. `unmountStatus` becomes 0 if the low byte of `flag` is 1, else 1; `didUnmount`
  /// becomes true if that byte is not 0, else false. Keyword form: `diskUnmountStatus:`.
  void diskUnmountStatus(int32_t flag);

  // Descriptions of devices, volumes and the machine.

  /// Returns the path under "/dev/" of the whole disk that holds a device: "/dev/disk3" for "disk3s2" and
  /// "/dev/disk3s2". For a slice of a disk-image file it is "/dev/" followed by the path of the file; every operation
  /// here accepts that form. Keyword form: `diskFromSlice:`.
  /// @return absent if the whole disk is not known. If there is no connection to disk arbitration or no such device,
  ///         "session NULL" or "disk NULL" is printed on standard output.
  std::optional<std::string> diskFromSlice(const std::string& device);

  /// Returns the description of the device whose node is at `url`; absent if the device is unknown. The keys are those
  /// of <Vorlix/platform/DiskArbitration.h>. Keyword form: `diskInfoForDeviceNodeAtURL:`.
  std::optional<vorlix::Dictionary> diskInfoForDeviceNodeAtURL(const vorlix::URL& url);

  /// Returns the description of the volume that is mounted at `url`; absent if there is none. Keyword form:
  /// `diskInfoForVolumeMountedAtURL:`.
  std::optional<vorlix::Dictionary> diskInfoForVolumeMountedAtURL(const vorlix::URL& url);

  /// Calls diskInfoForDeviceNodeAtURL() with a path. A bare name ("disk0s2") names that device. Keyword form:
  /// `diskInfo:`.
  std::optional<vorlix::Dictionary> diskInfo(const std::string& path);

  /// Calls diskInfoForVolumeMountedAtURL() with a path. Keyword form: `diskInfoFromMountedPath:`.
  std::optional<vorlix::Dictionary> diskInfoFromMountedPath(const std::string& path);

  /// Returns the type in the description of the volume mounted at `path`, such as "ntfs", "msdos" or "hfs". Keyword
  /// form: `fileSystemTypeAtPath:`.
  std::optional<std::string> fileSystemTypeAtPath(const std::string& path);

  /// Returns an empty string. Keyword form: `fileSystemDescriptionAtPath:`.
  std::string fileSystemDescriptionAtPath(const std::string& path);

  /// Returns the machine's model without spaces, such as "MacBookPro14,3"; empty if it is not known.
  std::string currentModelIdentifier();

  // Lists of volumes. Every call makes a new list.

  /// Returns all mounted volumes of disks, in mount order.
  std::vector<std::shared_ptr<QDVolume>> attachedDisks();

  /// Returns the mounted FAT, exFAT and NTFS volumes and those of unknown file system, or only those of them that have
  /// Windows. Keyword form: `attachedDisksShowingWindowsOnly:`.
  std::vector<std::shared_ptr<QDVolume>> attachedDisksShowingWindowsOnly(bool windowsOnly);

  /// Returns a record of each mounted volume whose whole disk is known, in mount order, with its names, device, sizes,
  /// identifiers and `volumeType` "disk". Keyword form: `attachedDisksShowingWindowsOnly:showAllDisks:`.
  ///
  /// `hasWindows` is true for an installed Windows (a folder Windows with a folder System32) and for its installer (a
  /// file sources/boot.wim). A Windows volume that does not have its own item BOOT gets `bootResourcePath` and
  /// `bootMgrPath` from splitBootInfo(). A volume without an identifier gets a new random one in each list.
  /// @param windowsOnly   leaves out volumes without Windows.
  /// @param showAllDisks  includes volumes of every file system. Otherwise the list has only FAT, exFAT and NTFS
  ///                      volumes and those whose file system is unknown.
  std::vector<std::shared_ptr<QDVolume>> attachedDisksShowingWindowsOnly(bool windowsOnly, bool showAllDisks);

  // Lookups in the list of attachedDisksShowingWindowsOnly(false). Each returns the first volume that matches, or null.

  /// Returns the volume with this identifier of its medium and this device node. Keyword form:
  /// `volumeWithMediaUUID:deviceNode:`.
  std::shared_ptr<QDVolume> volumeWithMediaUUID(const vorlix::UUID& uuid, const vorlix::URL& deviceNode);

  /// Returns the volume with this identifier of its medium. Keyword form: `volumeWithMediaUUID:`.
  std::shared_ptr<QDVolume> volumeWithMediaUUID(const vorlix::UUID& uuid);

  /// Returns the volume with this name. Keyword form: `volumeForLabel:`.
  std::shared_ptr<QDVolume> volumeForLabel(const std::string& label);

  /// Returns the volume with this device as the list shows it, such as "/dev/disk2s3". Keyword form: `volumeForNode:`.
  std::shared_ptr<QDVolume> volumeForNode(const std::string& node);

  /// Returns how many of those volumes are NTFS or FAT on an internal device.
  int32_t numberOfMSPartitions();

  /// Returns the only NTFS or FAT volume on an internal device that is not named "EFI"; null if there is none or more
  /// than one. Each device is looked up with another "/dev/" before its path.
  std::shared_ptr<QDVolume> builtInBootcampPartition();

  /// Returns the device paths of the services that MyFindEjectableMedia() finds. On a usual machine there are none.
  std::vector<std::string> ejectableMedia();

  /// Logs the EFI System Partitions in the I/O registry.
  /// @return always absent.
  std::optional<std::vector<std::shared_ptr<QDVolume>>> attachedDisksFromIORegistry();

  /// Returns the properties of the APFS volumes in the I/O registry, except dates and sets, which a Value cannot hold.
  std::vector<vorlix::Dictionary> attachedAPFSVolumesFromIORegistry();

  /// Returns where a device in the list of attachedDisksShowingWindowsOnly(false) is mounted; absent if the device is
  /// not in the list. Keyword form: `pathForDevice:`.
  std::optional<std::string> pathForDevice(const std::string& device);

  // Windows. The folder functions compare names without regard to the case of ASCII letters and return them as the
  // volume spells them. They examine names only, so a file may be returned for a folder. The result is absent if there
  // is no such name.

  /// Returns the path of the folder Windows at a volume's root. Keyword form: `windowsFolderFromVolume:`.
  static std::optional<std::string> windowsFolderFromVolume(const std::optional<std::string>& path);

  /// Returns the path of Windows/System32 on a volume. Keyword form: `system32FolderFromVolume:`.
  static std::optional<std::string> system32FolderFromVolume(const std::optional<std::string>& path);

  /// Returns the path of the folder sources at a volume's root. Keyword form: `windowsSourcesFolderFromVolume:`.
  static std::optional<std::string> windowsSourcesFolderFromVolume(const std::optional<std::string>& path);

  /// Returns the path of the file sources/boot.wim on a volume. Keyword form: `bootWIMFileFromVolume:`.
  static std::optional<std::string> bootWIMFileFromVolume(const std::optional<std::string>& path);

  /// Returns the boot files of a Windows that starts from a partition "System Reserved" of the same disk. Keyword form:
  /// `splitBootInfo:fullList:`.
  /// @param device    the device of the Windows volume.
  /// @param fullList  the volumes among which the partition is looked for.
  /// @return "bootFolderPath" and "bootmgrPath" on that partition. If no volume of the list is such a partition, they
  ///         are those of the last volume in the list; if the list is empty, both are empty.
  vorlix::Dictionary splitBootInfo(const std::string& device, const std::vector<std::shared_ptr<QDVolume>>& fullList);

  /// Finds out which Windows a volume holds, from its registry hive, read with the host's tool "registry_lookup", and
  /// from its setup log. Keyword form: `versionOfWindowsFromVolume:`.
  /// @return these strings: "product" (changed to "Windows 10", "Windows 8+" or "Windows 7" if it is one of them);
  ///         "edition", "buildLabEx" and "currentBuildNumber" as the registry has them, each empty if it could not be
  ///         read; and "bootenv" if the setup log exists. Without System32, "product", "buildLabEx",
  ///         "currentBuildNumber" and "bootenv" are empty and "edition" is absent.
  vorlix::Dictionary versionOfWindowsFromVolume(const std::shared_ptr<QDVolume>& volume);

  /// Returns whether the "product" of a volume names Windows 8 or 10; false for null. Keyword form:
  /// `hasWindows8OrLaterFromVolume:`.
  bool hasWindows8OrLaterFromVolume(const std::shared_ptr<QDVolume>& volume);

  // Startup disk.

  /// Returns how a volume starts. Keyword form: `bootTypeForDisk:`.
  /// @return kBootLegacy, kBootEFI, kBootMac, kBootRoot or kBootUnknown.
  uint32_t bootTypeForDisk(const std::shared_ptr<QDVolume>& volume);

  /// Makes a volume the startup disk with "/usr/sbin/bless". Keyword form: `selectStartupDisk:withType:nextOnly:`.
  ///
  /// The command runs only if the real user is the administrator; otherwise it is built but not run. The exit status of
  /// the tool is ignored.
  /// @param type      a code of BootType.
  /// @param nextOnly  selects the disk for the next start only. For a volume whose `isRemovable` is true the selection
  ///                  is permanent nevertheless. kBootVolumeEFI always means the next start only.
  /// @return false for kBootRoot and for codes of 6 and above. Also false if the command would run but the device's
  ///         name is not a plain word to the shell; then nothing runs. True otherwise.
  bool selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type, bool nextOnly);

  /// Makes a volume the startup disk for the next start only. Keyword form: `selectStartupDisk:withType:`.
  bool selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type);

  /// Makes a volume the startup disk for the next start only, with the code of bootTypeForDisk(). Keyword form:
  /// `selectNextOnlyStartupDisk:`.
  bool selectNextOnlyStartupDisk(const std::shared_ptr<QDVolume>& volume);

  /// Returns isSIPEnabled().
  bool checkForSIP();

  /// Returns whether System Integrity Protection prevents setting a startup disk, according to the output of
  /// "/usr/bin/csrutil status". Returns false if this instance has no file manager or its file manager does not find
  /// that tool.
  /// @throws std::system_error  if the tool cannot be launched.
  bool isSIPEnabled();

  /// Runs a program and returns what it writes to standard output until that is closed. Standard error is not read.
  /// Keyword form: `standardOutputForTask:`.
  /// @return absent if the output is not UTF-8.
  /// @throws std::system_error  if the program cannot be launched.
  std::optional<std::string> standardOutputForTask(const vorlix::Task& task);

  /// Returns whether the output of "csrutil status" says that the protection is on. Returns false if the output is
  /// absent or empty, or contains "NVRAM Protections: disabled" or "System Integrity Protection status: disabled".
  /// Keyword form: `isSIPEnabledFromStandardOutput:`.
  bool isSIPEnabledFromStandardOutput(const std::optional<std::string>& output);

  /// Returns whether the protection is on, according to QDSUtilities::isSIPEnabled(), and the device is on the running
  /// system's disk. Keyword form: `checkForSIPForDevice:`.
  /// @throws std::system_error  if the tool cannot be launched.
  bool checkForSIPForDevice(const std::string& device);

  /// Returns whether a device is on the same physical device as the volume mounted at "/". Keyword form:
  /// `isOnStartupDisk:`.
  bool isOnStartupDisk(const std::string& device);

  /// Does nothing.
  void showSIPInfo();

  /// Returns whether this machine can start Windows by EFI: false if its model is in the list of the host's resource
  /// "BeforeEFI.plist", which is an array of strings.
  bool isEFIWindowsBootable();

 protected:
  QDDeviceManager();

 private:
  bool didUnmount_ = false;
  bool didMount_ = false;
  int32_t mountStatus_ = 0;
  int32_t unmountStatus_ = 0;

  mutable std::mutex objects_;  // guards the next three fields
  std::shared_ptr<vorlix::FileManager> fileManager_;
  std::shared_ptr<vorlix::Object> log_;
  std::weak_ptr<vorlix::Object> delegate_;
};

/// The shared instance, for plain functions. It is null until the first call of sharedDeviceManager(), which sets it. A
/// thread that reads it during that first call needs its own lock.
VORLIX_EXPORT extern std::shared_ptr<QDDeviceManager> myObj;
