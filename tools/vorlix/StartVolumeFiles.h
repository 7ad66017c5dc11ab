// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/StartFiles.h>
#include <Vorlix/platform/VolumeMirrors.h>

#include <memory>
#include <string>

#include "VolumeFolder.h"

namespace vorlix::tool {

/// The files below a folder where a volume is mounted. Links and devices are items of the kind `other`.
class MountedFiles final : public FilesOfVolume {
 public:
  explicit MountedFiles(VolumeFolder root) : root_(std::move(root)) {}

  std::vector<Item> itemsIn(const std::string& folder, std::optional<std::string>& reason) const override;
  std::optional<std::string> read(const std::string& file, std::vector<uint8_t>& bytes) const override;

  const VolumeFolder& root() const { return root_; }

 private:
  VolumeFolder root_;
};

/// Looks at the files of a volume without mounting it: where it is mounted, or in its bytes. Throws Failure if neither
/// is possible.
std::unique_ptr<FilesOfVolume> lookAtFiles(const std::string& slice);

}  // namespace vorlix::tool
