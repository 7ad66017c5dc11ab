// SPDX-License-Identifier: Apache-2.0
//
// Device names on macOS: device nodes by path or BSD name, disk-image files, and slices of images.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

/// Where the bytes of a named device are.
struct DeviceLocation {
  std::string path;      ///< a device node or a disk-image file
  uint32_t slice = 0;    ///< slice of the image, 0 for all of it; locateDevice() gives none of a node
  bool isImage = false;  ///< `path` is a regular file
};

/// Finds a device by path ("/dev/disk0s3", "/dev/rdisk0", "mac.img"), by BSD name ("disk0s3"), or slice N of a
/// disk-image file ("mac.imgs3"). The BSD name of an image file is its absolute path, and callers put "/dev/" before
/// BSD names, some of them twice, so "/dev//Users/me/mac.img" is that file and "/dev//dev/disk0" that device. A path
/// that exists is taken as it is. Does not look up the slice of an image. Absent with `errno` set: ENOENT, EISDIR,
/// ENOTBLK for anything that is neither a device node nor a file, or the system's reason.
std::optional<DeviceLocation> locateDevice(const std::string& name);

/// Returns disk arbitration's name for a device: "disk0s3" for "disk0s3", "/dev/disk0s3", "/dev//dev/disk0s3" and
/// the raw node "/dev/rdisk0s3" of the same disk; "disk4s1" for a volume that is mounted from
/// "msdos://disk4s1/NAME". Absent for a path outside /dev.
std::optional<std::string> arbitrationName(const std::string& name);

}  // namespace vorlix
