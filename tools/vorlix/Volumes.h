// SPDX-License-Identifier: Apache-2.0
//
// Volumes for the commands about them: found, and shown as a table or as JSON.
#pragma once

#include <Vorlix/QDVolume.h>

#include <memory>
#include <string>
#include <vector>

#include "Json.h"

namespace vorlix::tool {

using Volumes = std::vector<std::shared_ptr<QDVolume>>;

/// Keeps what the library says on standard output out of a command's own output, while the object lives.
class QuietLibrary {
 public:
  QuietLibrary();
  ~QuietLibrary();
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;

 private:
  int output_ = -1;
};

/// Where the files that start a volume's Windows are: "own" for its own folder, the folder's path on a boot partition,
/// "none" if neither was found; empty for a volume without Windows. The library names a folder in any case, so it is
/// looked at once more whether that is one of `all`'s boot partitions, on the same disk.
std::string bootFilesText(const QDVolume& volume, const Volumes& all);

/// "installed", "installer" or empty.
std::string windowsText(const QDVolume& volume);

/// A table with one row a volume.
std::string volumeTable(const Volumes& volumes, const Volumes& all);

/// Everything about a volume, as an object.
Json volumeJson(const QDVolume& volume, const Volumes& all);

/// The mounted volume of a device, by its path, its name or the folder where it is mounted. Null if there is none.
std::shared_ptr<QDVolume> mountedVolume(const std::string& deviceOrFolder, const Volumes& all);

}  // namespace vorlix::tool
