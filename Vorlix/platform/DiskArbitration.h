// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's disk arbitration: disks by name or mount point, their descriptions, mounting and unmounting.
#pragma once

#include <Vorlix/foundation/Value.h>
#include <Vorlix/platform/RunLoop.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

// Keys of a disk's description, as Disk Arbitration publishes them. A key whose value is unknown is absent.
inline constexpr const char* kDescriptionDeviceGUID = "DADeviceGUID";          ///< bytes
inline constexpr const char* kDescriptionDeviceInternal = "DADeviceInternal";  ///< boolean
inline constexpr const char* kDescriptionDevicePath = "DADevicePath";          ///< text, path in the I/O registry
inline constexpr const char* kDescriptionDeviceUnit = "DADeviceUnit";          ///< integer, the n of diskn
inline constexpr const char* kDescriptionMediaBlockSize = "DAMediaBlockSize";  ///< integer, bytes
inline constexpr const char* kDescriptionMediaBSDName = "DAMediaBSDName";      ///< text
inline constexpr const char* kDescriptionMediaContent = "DAMediaContent";      ///< text, the partition type
inline constexpr const char* kDescriptionMediaEjectable = "DAMediaEjectable";  ///< boolean
inline constexpr const char* kDescriptionMediaName = "DAMediaName";            ///< text
inline constexpr const char* kDescriptionMediaPath = "DAMediaPath";            ///< text, path in the I/O registry
inline constexpr const char* kDescriptionMediaRemovable = "DAMediaRemovable";  ///< boolean
inline constexpr const char* kDescriptionMediaSize = "DAMediaSize";            ///< integer, bytes
inline constexpr const char* kDescriptionMediaUUID = "DAMediaUUID";            ///< UUID of the partition
inline constexpr const char* kDescriptionMediaWhole = "DAMediaWhole";          ///< boolean
inline constexpr const char* kDescriptionMediaWritable = "DAMediaWritable";    ///< boolean
inline constexpr const char* kDescriptionVolumeKind = "DAVolumeKind";  ///< text: "msdos", "ntfs", "exfat", "hfs"
inline constexpr const char* kDescriptionVolumeMountable = "DAVolumeMountable";  ///< boolean
inline constexpr const char* kDescriptionVolumeName = "DAVolumeName";            ///< text
inline constexpr const char* kDescriptionVolumePath =
    "DAVolumePath";  ///< URL of the mount point; absent if not mounted
inline constexpr const char* kDescriptionVolumeType = "DAVolumeType";  ///< text
inline constexpr const char* kDescriptionVolumeUUID = "DAVolumeUUID";  ///< UUID

/// Why a request was refused: one of Disk Arbitration's published codes, and a text for people, which may be empty.
struct Dissenter {
  int32_t status = 0;  ///< a code such as kDissentBusy
  std::string text;    ///< for people; may be empty
};

// Published dissenter codes. All are negative as signed numbers.
inline constexpr int32_t kDissentError = static_cast<int32_t>(0xF8DA0001);            ///< any other reason
inline constexpr int32_t kDissentBusy = static_cast<int32_t>(0xF8DA0002);             ///< in use, or mounted already
inline constexpr int32_t kDissentBadArgument = static_cast<int32_t>(0xF8DA0003);      ///< wrong argument
inline constexpr int32_t kDissentExclusiveAccess = static_cast<int32_t>(0xF8DA0004);  ///< another process has it
inline constexpr int32_t kDissentNoResources = static_cast<int32_t>(0xF8DA0005);      ///< out of memory or descriptors
inline constexpr int32_t kDissentNotFound = static_cast<int32_t>(0xF8DA0006);         ///< no such device
inline constexpr int32_t kDissentNotMounted = static_cast<int32_t>(0xF8DA0007);       ///< not mounted
inline constexpr int32_t kDissentNotPermitted = static_cast<int32_t>(0xF8DA0008);     ///< refused by a policy
inline constexpr int32_t kDissentNotPrivileged = static_cast<int32_t>(0xF8DA0009);    ///< needs an administrator
inline constexpr int32_t kDissentNotReady = static_cast<int32_t>(0xF8DA000A);         ///< not ready yet
inline constexpr int32_t kDissentNotWritable = static_cast<int32_t>(0xF8DA000B);      ///< write-protected
inline constexpr int32_t kDissentUnsupported = static_cast<int32_t>(0xF8DA000C);      ///< no driver for it

/// Called once with the result of a mount or unmount. No dissenter means success.
using DiskCompletion = std::function<void(const std::optional<Dissenter>&)>;

/// A whole disk, a slice or an image file. The object is only a name within its session and keeps nothing open.
///
/// A disk may outlive its session and still be asked. A mount or unmount is then carried out without its completion,
/// since there is no loop to run it on.
class Disk {
 public:
  virtual ~Disk() = default;

  /// Returns the device name without "/dev/", or the path of a disk-image file.
  virtual std::optional<std::string> bsdName() = 0;

  /// Returns what the system knows about the disk now. Absent if it knows no such disk.
  virtual std::optional<Dictionary> copyDescription() = 0;

  /// Return single entries of the description (kDescriptionVolumeType, VolumeUUID, MediaBlockSize, VolumePath), for
  /// callers that need nothing else: a whole description takes longer, since it looks at everything.
  virtual std::optional<std::string> volumeType() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->text(kDescriptionVolumeType) : std::nullopt;
  }
  /// Returns the identifier of the volume from the description.
  virtual std::optional<UUID> volumeUUID() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->uuid(kDescriptionVolumeUUID) : std::nullopt;
  }
  /// Returns the bytes of a logical block from the description.
  virtual std::optional<int64_t> blockSize() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->integer(kDescriptionMediaBlockSize) : std::nullopt;
  }
  /// Returns where the volume is mounted, from the description.
  virtual std::optional<URL> volumePath() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->url(kDescriptionVolumePath) : std::nullopt;
  }

  /// Returns whether the disk is inside the machine, from the description. Absent if its bus does not report that.
  virtual std::optional<bool> isInternal() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->boolean(kDescriptionDeviceInternal) : std::nullopt;
  }
  /// Returns the entries of the description that are about the volume, whose keys begin with kDescriptionVolume, and
  /// perhaps others.
  virtual std::optional<Dictionary> copyVolumeDescription() { return copyDescription(); }

  /// Returns the whole disk that this one is a slice of, or the disk itself if it is whole. Null with `errno` if there
  /// is none (ENOENT), or if the system cannot tell.
  virtual std::shared_ptr<Disk> wholeDisk() = 0;

  /// Mounts the disk's volume at a place that the system chooses. Known arguments: "nobrowse" hides the volume from the
  /// desktop's lists, "rw" requests reading and writing, "rdonly" reading only: no byte of the disk changes.
  ///
  /// The completion runs only on the run loop that the session is scheduled on, in that mode. A request without a
  /// completion is carried out at the latest when the session ends.
  virtual void mount(const std::vector<std::string>& arguments, DiskCompletion completion) = 0;

  /// Unmounts the disk's volume; otherwise like mount(). Refused with kDissentNotMounted if the volume is not mounted,
  /// and with kDissentBusy if it is in use; it stays mounted then.
  virtual void unmount(DiskCompletion completion) = 0;
};

/// A connection to disk arbitration. One thread at a time uses it.
class DiskArbitrationSession {
 public:
  virtual ~DiskArbitrationSession() = default;

  /// Returns the disk with a device name, with or without "/dev/". Null if no disk has that name; `errno` is EACCES
  /// then if the caller may not look there.
  virtual std::shared_ptr<Disk> diskFromBSDName(const std::string& name) = 0;

  /// Returns the disk whose volume is mounted at a path. Null if no volume is mounted there.
  virtual std::shared_ptr<Disk> diskFromVolumePath(const URL& path) = 0;

  /// Makes the session's completions run on a loop of the same platform, in `mode`.
  virtual void schedule(RunLoop& loop, const std::string& mode) = 0;

  /// Undoes schedule(). Does nothing for a mode in which the session is not scheduled.
  virtual void unschedule(RunLoop& loop, const std::string& mode) = 0;
};

/// Opens connections to disk arbitration.
class DiskArbitration {
 public:
  virtual ~DiskArbitration() = default;

  /// Opens a connection. Null if the service cannot be reached.
  virtual std::shared_ptr<DiskArbitrationSession> createSession() = 0;

  /// Returns the kDescriptionVolumeKind of the volume that is mounted at a path. Absent if no volume is mounted there
  /// or its kind is unknown.
  virtual std::optional<std::string> volumeKindAt(const URL& path) {
    const auto session = createSession();
    const auto disk = session ? session->diskFromVolumePath(path) : nullptr;
    const auto description = disk ? disk->copyDescription() : std::nullopt;
    return description ? description->text(kDescriptionVolumeKind) : std::nullopt;
  }
};

}  // namespace vorlix
