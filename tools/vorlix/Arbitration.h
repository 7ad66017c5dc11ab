// SPDX-License-Identifier: Apache-2.0
//
// Direct requests of the commands to disk arbitration: names, mount points, and the reason for a refusal, which the
// library's flat functions reduce to a number.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::tool {

/// Returns the name under which disk arbitration knows a device: "sda3", or the absolute path of an image file or of
/// its slice. Every look-up accepts that name. Throws Failure for an unknown device.
std::string bsdNameOf(const std::string& device);

/// The same for comparing names: that of a device that is not there is returned as it is, without "/dev/".
std::string ownNameOf(const std::string& device);

/// Returns the name of the whole disk that a device is a slice of, or the device's name if it is a whole disk. Throws
/// Failure for an unknown device.
std::string wholeDiskNameOf(const std::string& device);

/// Both names, by one look-up. Throws Failure like the two functions above.
struct DeviceNames {
  std::string own;
  std::string whole;  ///< equals `own` for a whole disk

  bool isSlice() const { return own != whole; }
};
DeviceNames namesOf(const std::string& device);

/// Returns the name of slice `number` of a disk. Throws Failure if that name belongs to another file or device: a
/// look-up prefers an existing path to a slice, and a command must not write to what the user did not name.
std::string sliceNameOf(const std::string& disk, uint32_t number);

/// Returns the name of a device and the folder where its volume is mounted, by one look-up. Throws Failure for an
/// unknown device.
struct DevicePlace {
  std::string name;
  std::optional<std::string> mountPoint;
};
DevicePlace placeOf(const std::string& device);

/// Returns what a listing shows of slice `number` of a disk, or of the whole disk for 0, by one look-up. A slice that
/// the disk does not have has a name alone. Throws Failure like sliceNameOf().
struct VolumeOfSlice {
  std::string name;  ///< as sliceNameOf() returns it
  DevicePlace place;
  std::optional<std::string> kind;   ///< of the file system: "ntfs", "msdos", ...
  std::optional<std::string> label;  ///< of the file system
  bool isThere = false;              ///< the members above but the name are known
};
VolumeOfSlice volumeOfSlice(const std::string& disk, uint32_t number);

/// Returns the content of a medium: for a whole disk the kind of partition table ("GUID_partition_scheme",
/// "FDisk_partition_scheme"), for a slice the partition type. Empty if unknown.
std::string mediaContentOf(const std::string& device);

/// Returns the kind of a device's file system: "ntfs", "msdos", ... Absent if it has none that is known.
std::optional<std::string> volumeKindOf(const std::string& device);

/// Returns the folder where the device's volume is mounted; absent if it is not mounted.
std::optional<std::string> mountPointOf(const std::string& device);

/// Returns the device of the volume that is mounted at a folder; empty if none is.
std::string deviceMountedAt(const std::string& folder);

/// Returns the folder of a volume that the user named by that folder or by a device whose volume is mounted. Otherwise
/// throws Failure with `state`.
std::string folderOfVolume(const std::string& volume, const std::optional<std::string>& state = std::nullopt);

/// What a volume is mounted for: what the system chooses, reading only, or reading and writing without being shown on
/// the desktop.
enum class MountFor { any, reading, writing };

/// Mounts or unmounts a volume and waits for the reply. @return the reason for a refusal; absent for success.
std::optional<Dissenter> tryMount(const std::string& device, MountFor purpose);
std::optional<Dissenter> tryUnmount(const std::string& device);

/// Returns a dissenter's reason: the system's text, or if there is none, the meaning of the status.
std::string reasonText(const Dissenter& dissenter);

}  // namespace vorlix::tool
