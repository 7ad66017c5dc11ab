// SPDX-License-Identifier: Apache-2.0
//
// Device names on Linux: block devices by path or kernel name, disk-image files, and slices of either.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

/// Where the bytes of a named device are.
struct DeviceLocation {
  std::string whole;     ///< path of the whole disk: a block device node or a disk-image file
  std::string node;      ///< path to open: `whole`, or the kernel's own node of the slice
  uint32_t slice = 0;    ///< slice number, 0 for the whole disk
  bool isImage = false;  ///< `whole` is a regular file
  bool hasOwnNode() const { return slice == 0 || node != whole; }
};

/// Finds a device by path ("/dev/sda3", "mac.img"), by kernel name ("sda3") or as slice N of either ("sdas3",
/// "/dev/nvme0n1s3", "mac.imgs3"). The BSD name of an image file is its absolute path, and callers put "/dev/" before
/// BSD names, some of them twice, so "/dev//home/me/mac.img" is that file and "/dev//dev/sda3" that device. A path that
/// exists is taken as it is. The slice of an image is not looked up. An image file that is found is remembered
/// (ImageFiles.h); one that is named by a relative path, but cannot be reached by its absolute one, is not found, with
/// the reason that has (EACCES). Absent with `errno` set: ENOENT, EISDIR, ENOTBLK for what is neither a block device
/// nor a file, or what the system says.
std::optional<DeviceLocation> locateDevice(const std::string& name);

}  // namespace vorlix
