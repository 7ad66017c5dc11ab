// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's disk arbitration. Disks by name or mount point, what is known of them, mounting and unmounting.
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

// Keys of a disk's description, as Disk Arbitration publishes them. A key whose value is not known is absent.
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

/// Why a request was refused: one of Disk Arbitration's published codes, and a text for people (it may be empty).
struct Dissenter {
  int32_t status = 0;
  std::string text;
};

// Published dissenter codes. As signed numbers all are negative.
inline constexpr int32_t kDissentError = static_cast<int32_t>(0xF8DA0001);
inline constexpr int32_t kDissentBusy = static_cast<int32_t>(0xF8DA0002);
inline constexpr int32_t kDissentBadArgument = static_cast<int32_t>(0xF8DA0003);
inline constexpr int32_t kDissentExclusiveAccess = static_cast<int32_t>(0xF8DA0004);
inline constexpr int32_t kDissentNoResources = static_cast<int32_t>(0xF8DA0005);
inline constexpr int32_t kDissentNotFound = static_cast<int32_t>(0xF8DA0006);
inline constexpr int32_t kDissentNotMounted = static_cast<int32_t>(0xF8DA0007);
inline constexpr int32_t kDissentNotPermitted = static_cast<int32_t>(0xF8DA0008);
inline constexpr int32_t kDissentNotPrivileged = static_cast<int32_t>(0xF8DA0009);
inline constexpr int32_t kDissentNotReady = static_cast<int32_t>(0xF8DA000A);
inline constexpr int32_t kDissentNotWritable = static_cast<int32_t>(0xF8DA000B);
inline constexpr int32_t kDissentUnsupported = static_cast<int32_t>(0xF8DA000C);

/// Told once what became of a mount or unmount: no dissenter means success.
using DiskCompletion = std::function<void(const std::optional<Dissenter>&)>;

/// A disk object: a whole disk, a slice or an image file. It is a name within its session; holding one keeps nothing
/// open.
///
/// A disk may outlive its session. It still answers what it is asked; a mount or unmount is then carried out without
/// its completion, since there is no loop to run it on.
class Disk {
 public:
  virtual ~Disk() = default;

  /// The device name without "/dev/"; of a disk-image file, its path.
  virtual std::optional<std::string> bsdName() = 0;

  /// What the system knows of the disk now. Absent when it knows no such disk.
  virtual std::optional<Dictionary> copyDescription() = 0;

  /// Single entries of the description (kDescriptionVolumeType, VolumeUUID, MediaBlockSize, VolumePath), for callers
  /// that need nothing else: a whole description looks at everything.
  virtual std::optional<std::string> volumeType() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->text(kDescriptionVolumeType) : std::nullopt;
  }
  virtual std::optional<UUID> volumeUUID() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->uuid(kDescriptionVolumeUUID) : std::nullopt;
  }
  virtual std::optional<int64_t> blockSize() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->integer(kDescriptionMediaBlockSize) : std::nullopt;
  }
  virtual std::optional<URL> volumePath() {
    const std::optional<Dictionary> description = copyDescription();
    return description ? description->url(kDescriptionVolumePath) : std::nullopt;
  }

  /// The whole disk that this one is a slice of, or the disk itself if it is whole. Null where there is none.
  virtual std::shared_ptr<Disk> wholeDisk() = 0;

  /// Mounts the disk's volume at a place of the system's choice. Known arguments: "nobrowse" keeps the volume out of
  /// the desktop's lists, "rw" asks for reading and writing.
  ///
  /// The completion runs on the run loop that the session is scheduled on, in that mode, and never before. Without a
  /// completion the request is carried out at the latest when the session ends.
  virtual void mount(const std::vector<std::string>& arguments, DiskCompletion completion) = 0;

  /// Unmounts the disk's volume; otherwise like mount(). A volume that is not mounted is refused with
  /// kDissentNotMounted, one in use with kDissentBusy; it then stays mounted.
  virtual void unmount(DiskCompletion completion) = 0;
};

/// A connection to disk arbitration. Used by one thread at a time.
class DiskArbitrationSession {
 public:
  virtual ~DiskArbitrationSession() = default;

  /// The disk of a device name, with or without "/dev/". Null for a name that no disk has; `errno` is EACCES if the
  /// system says that the caller may not look there.
  virtual std::shared_ptr<Disk> diskFromBSDName(const std::string& name) = 0;

  /// The disk whose volume is mounted at a path. Null where no volume is mounted.
  virtual std::shared_ptr<Disk> diskFromVolumePath(const URL& path) = 0;

  /// Lets the session's completions run on a loop of the same platform, in `mode`.
  virtual void schedule(RunLoop& loop, const std::string& mode) = 0;

  /// Ends that. A mode in which the session is not scheduled is ignored.
  virtual void unschedule(RunLoop& loop, const std::string& mode) = 0;
};

class DiskArbitration {
 public:
  virtual ~DiskArbitration() = default;

  /// Opens a connection. Null when the service cannot be reached.
  virtual std::shared_ptr<DiskArbitrationSession> createSession() = 0;

  /// kDescriptionVolumeKind of the volume that is mounted at a path. Absent where none is, or its kind is not known.
  virtual std::optional<std::string> volumeKindAt(const URL& path) {
    const auto session = createSession();
    const auto disk = session ? session->diskFromVolumePath(path) : nullptr;
    const auto description = disk ? disk->copyDescription() : std::nullopt;
    return description ? description->text(kDescriptionVolumeKind) : std::nullopt;
  }
};

}  // namespace vorlix
