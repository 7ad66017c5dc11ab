// SPDX-License-Identifier: Apache-2.0
//
// Looking at a volume by functions that take the folder where it is mounted, whether it is mounted or not.
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ViewFolder.h"

namespace vorlix::tool {

struct DevicePlace;

/// The folder of a volume: where it is mounted, or for a FAT or NTFS volume that is not, a folder in the folder for
/// temporary files with what was asked for. Nothing is mounted and no byte of the disk changes. Functions throw
/// Failure.
class VolumeView {
 public:
  /// @param volume  what the user named: a folder, or a device.
  /// @param state   of the Failure.
  explicit VolumeView(const std::string& volume, const std::optional<std::string>& state = std::nullopt);
  /// The same for a device whose place was looked up already. @param kind  of its file system
  VolumeView(const DevicePlace& place, const std::optional<std::string>& kind);

  const std::string& folder() const { return folder_; }

  /// The kind of the volume's file system, as its record has it.
  std::optional<std::string> fileSystem() const;

  /// Puts a file into the folder, in the spelling that the volume has, with its folders; only those if the volume does
  /// not have the file. A larger file is refused. Does nothing for a mounted volume.
  /// @param names  the folders, then the file.
  void needContent(const std::vector<std::string>& names, size_t limit);

  /// The same for whether a file or folder exists: a file has no content.
  void needName(const std::vector<std::string>& names);

 private:
  void openUnmounted(const std::string& device);
  void makeFolder();
  void need(const std::vector<std::string>& names, std::optional<size_t> limit);
  void write(const std::string& path, size_t limit) const;

  std::string volume_;
  std::optional<std::string> state_;
  std::string folder_;
  std::optional<std::string> kind_;  // of a volume that is not mounted
  std::unique_ptr<UnmountedVolume> unmounted_;
  std::unique_ptr<ViewFolder> temporary_;
};

}  // namespace vorlix::tool
