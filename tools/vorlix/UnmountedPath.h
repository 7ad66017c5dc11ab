// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/VolumeMirrors.h>

#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

/// What was found of a path on a volume that is not mounted: its items from the root on, in the volume's spelling.
struct UnmountedPath {
  std::vector<UnmountedVolume::Item> items;
  bool isWhole = false;  ///< all of the path; else the next item is missing, or the last one found is no folder

  /// The path of the last item: "/EFI/Boot"; empty if there is none.
  std::string path() const;
};

/// Walks down a path, with names in any spelling that Windows would find.
/// @return why the volume cannot be read
std::optional<Dissenter> walkUnmounted(const UnmountedVolume& volume, const std::vector<std::string>& names,
                                       UnmountedPath& path);

}  // namespace vorlix::tool
