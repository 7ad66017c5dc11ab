// SPDX-License-Identifier: Apache-2.0
//
// What the commands ask disk arbitration for directly: names, mount points, and the reason of a refusal, which the flat
// functions only turn into a number.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::tool {

/// The device's own name as disk arbitration knows it, which every look-up takes: "sda3", or the absolute path of an
/// image file and its slice. Throws Failure for an unknown device.
std::string bsdNameOf(const std::string& device);

/// The name of the whole disk that a device is a slice of, or its own if it is whole. Throws Failure for an unknown
/// one.
std::string wholeDiskNameOf(const std::string& device);

/// Both names by one look-up. Throws Failure like the two functions above.
struct DeviceNames {
  std::string own;
  std::string whole;  ///< the same where the device is whole

  bool isSlice() const { return own != whole; }
};
DeviceNames namesOf(const std::string& device);

/// The name of slice `number` of a disk. Throws Failure where that name is something else's: a path that exists is
/// taken as it is, and what was not asked for must not be written to.
std::string sliceNameOf(const std::string& disk, uint32_t number);

/// What the medium holds: the sort of partition table of a whole disk ("GUID_partition_scheme",
/// "FDisk_partition_scheme"), the partition type of a slice. Empty where it is not known.
std::string mediaContentOf(const std::string& device);

/// Where the device's volume is mounted.
std::optional<std::string> mountPointOf(const std::string& device);

/// The folder that a person means by a volume: itself, or where that device's volume is mounted. Throws Failure, which
/// says `state`, if it is neither.
std::string folderOfVolume(const std::string& volume, const std::optional<std::string>& state = std::nullopt);

/// Mounts or unmounts and waits. @return why it was refused; absent for success.
std::optional<Dissenter> tryMount(const std::string& device, bool readWrite);
std::optional<Dissenter> tryUnmount(const std::string& device);

/// A dissenter in words: the system's own, else what its code means.
std::string reasonText(const Dissenter& dissenter);

}  // namespace vorlix::tool
