// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the volumes that are mounted now.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

struct MountedVolume {
  std::string name;                      ///< label, else the mount folder's name; UTF-8
  std::optional<std::string> mountPath;  ///< absent where the system knows no path of the volume's root
  std::string mountedFrom;               ///< as the mount names its source: a device node, or a driver's own form
  std::optional<uint64_t> totalSize;     ///< bytes; absent where the file system did not tell
  std::optional<uint64_t> freeSpace;     ///< bytes an ordinary user may still write; likewise
};

class MountedVolumes {
 public:
  virtual ~MountedVolumes() = default;

  /// The volumes in the order in which they were mounted, each device once: at its first place. A volume that goes
  /// while the list is made is in it without sizes, or not at all.
  virtual std::vector<MountedVolume> volumes() = 0;
};

}  // namespace vorlix
