// SPDX-License-Identifier: Apache-2.0
//
// The place of a volume's bytes. A volume can have many names: the node of a partition, another node with the same
// number, a loop device for the disk or for an image of it, the image itself. All of them have one origin.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

struct VolumeOrigin {
  dev_t device = 0;     ///< the whole disk; for an image file, the device of its file system
  ino_t file = 0;       ///< the image file; 0 for a disk
  uint64_t offset = 0;  ///< bytes from the start of the disk or of the image

  auto operator<=>(const VolumeOrigin&) const = default;
};

/// Returns the origin of a block device. Follows partitions to their disk and loop devices to what they show.
VolumeOrigin originOfDevice(dev_t device, uint64_t offset = 0);

/// Returns the origin of the block device or regular file that stat() has returned. Absent for anything else.
std::optional<VolumeOrigin> originOf(const struct stat& status, uint64_t offset = 0);

/// Returns the origin of the block device or regular file at a path. Absent for anything else.
std::optional<VolumeOrigin> originOfPath(const std::string& path, uint64_t offset = 0);

/// Returns the path of what a loop device shows, from sysfs. Absent if the device is not a loop device or not in use.
std::optional<std::string> backingPathOf(dev_t device);

/// What a loop device shows: the backing file or device, and the offset in it.
struct LoopBacking {
  std::string path;
  uint64_t offset = 0;
};

/// Returns the backing of a loop device that was made for one mount and disappears with it. Absent for other devices.
std::optional<LoopBacking> loopBackingOf(dev_t device);

}  // namespace vorlix
