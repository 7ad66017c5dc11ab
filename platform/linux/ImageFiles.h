// SPDX-License-Identifier: Apache-2.0
//
// The disk-image files that this process has named. The system has no list of its image files, so a walk over the disks
// can show only these.
#pragma once

#include <string>
#include <vector>

namespace vorlix {

/// Returns the BSD name of a disk-image file: its absolute path without "." and doubled slashes. Symbolic links are
/// kept, unless this user cannot follow the path through the working folder and there is another path.
std::string imageBSDName(const std::string& path);

/// Remembers a disk-image file. The list has the last 64 names, each once. Any thread may call this.
void noteImageFile(const std::string& path);

/// Returns the BSD names of the remembered files in the order in which they were last named. A file may have been
/// deleted meanwhile.
std::vector<std::string> namedImageFiles();

}  // namespace vorlix
