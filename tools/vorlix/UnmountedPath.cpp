// SPDX-License-Identifier: Apache-2.0
#include "UnmountedPath.h"

#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>

namespace vorlix::tool {

std::string UnmountedPath::path() const {
  std::string text;
  for (const UnmountedVolume::Item& item : items) text += "/" + item.name;
  return text;
}

std::optional<Dissenter> walkUnmounted(const UnmountedVolume& volume, const std::vector<std::string>& names,
                                       UnmountedPath& path) {
  path = {};
  for (const std::string& name : names) {
    if (!path.items.empty() && !path.items.back().isFolder) return std::nullopt;
    std::vector<UnmountedVolume::Item> items;
    if (auto refusal = volume.list(path.path(), items)) return refusal;
    const auto found = std::find_if(items.begin(), items.end(), [&](const UnmountedVolume::Item& item) {
      return !spellingsOf({item.name}, name).empty();
    });
    if (found == items.end()) return std::nullopt;
    path.items.push_back(*found);
  }
  path.isWhole = true;
  return std::nullopt;
}

}  // namespace vorlix::tool
