// SPDX-License-Identifier: Apache-2.0
//
// Device names on Linux: block devices by path or kernel name, disk-image files, and slices of either.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

/// Where the bytes of a device are.
struct DeviceLocation {
  std::string whole;      ///< path of the whole disk: a block device node or a disk-image file
  std::string node;       ///< path to open: `whole`, or the kernel's own node of the slice
  uint32_t slice = 0;     ///< slice number, 0 for the whole disk
  bool isImage = false;   ///< `whole` is a regular file
  std::string imageName;  ///< BSD name of that file (ImageFiles.h); empty for a device
  bool hasOwnNode() const { return slice == 0 || node != whole; }
};

/// Finds a device by path ("/dev/sda3", "mac.img"), by kernel name ("sda3") or as slice N of either ("sdas3",
/// "/dev/nvme0n1s3", "mac.imgs3").
///
/// The BSD name of an image file is its absolute path, and callers put "/dev/" before BSD names, some of them twice. So
/// "/dev//home/me/mac.img" is that file and "/dev//dev/sda3" that device. A path that exists is used as it is. Slices
/// of images are not checked.
///
/// An image file that is found is remembered (ImageFiles.h). It is not found if it is named by a relative path and its
/// absolute path cannot be followed; `errno` then has the reason (EACCES).
/// @return absent with `errno` set: ENOENT, EISDIR, ENOTBLK for anything but a block device or file, or the system's
///         error.
std::optional<DeviceLocation> locateDevice(const std::string& name);

}  // namespace vorlix
