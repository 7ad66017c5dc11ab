// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the volumes that are mounted now.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A volume in the list of the system.
struct MountedVolume {
  std::string name;                      ///< label, else the mount folder's name; UTF-8
  std::optional<std::string> mountPath;  ///< absent if the system knows no path of the volume's root
  std::string mountedFrom;               ///< the source that the mount names: a device node, or a driver's own form
  std::optional<uint64_t> totalSize;     ///< bytes; absent if the file system does not report it
  std::optional<uint64_t> freeSpace;     ///< bytes that an ordinary user can write; absent likewise
};

/// Port: lists the mounted volumes.
class MountedVolumes {
 public:
  virtual ~MountedVolumes() = default;

  /// Returns the volumes in the order in which they were mounted. Each device is listed once, at its first mount point.
  /// A volume that is unmounted meanwhile is listed without sizes or not at all.
  virtual std::vector<MountedVolume> volumes() = 0;
};

}  // namespace vorlix
