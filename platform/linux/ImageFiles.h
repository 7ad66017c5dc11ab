// SPDX-License-Identifier: Apache-2.0
//
// The disk-image files that this process has named. The system has no list of its image files, so a walk over the disks
// can show only these.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// Returns the BSD name of a disk-image file: its absolute path without "." and doubled slashes. Symbolic links are
/// kept, unless this user cannot follow the path through the working folder and there is another path.
std::string imageBSDName(const std::string& path);

/// Returns the BSD name of the file `image` that a path leads to.
/// @return absent, with `errno` set, if the path is relative and this user cannot follow the name to that file, for
///         example because a folder above the working folder cannot be entered: nothing would find the image later.
std::optional<std::string> lastingImageName(const std::string& path, const struct stat& image);

/// Remembers a disk-image file by its BSD name. The list has the last 64 names, each once. Any thread may call this.
void noteImageFile(const std::string& name);

/// Returns the BSD names of the remembered files in the order in which they were last named. A file may have been
/// deleted meanwhile.
std::vector<std::string> namedImageFiles();

}  // namespace vorlix
