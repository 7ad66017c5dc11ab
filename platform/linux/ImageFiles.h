// SPDX-License-Identifier: Apache-2.0
//
// The disk-image files that this process has named. A system has no list of the image files on it, so that the ones
// whose names came up are all that a walk over the machine's disks can show.
#pragma once

#include <string>
#include <vector>

namespace vorlix {

/// The BSD name of a disk-image file: its absolute path, without "." steps and doubled separators. Symbolic links stay
/// as they are named, unless the way through the current folder is closed to this user and there is another one.
std::string imageBSDName(const std::string& path);

/// Remembers a disk-image file. The list holds the 64 names that came up last, each once. Any thread may call this.
void noteImageFile(const std::string& path);

/// The BSD names of the remembered files, in the order in which they came up. A file may be gone meanwhile.
std::vector<std::string> namedImageFiles();

}  // namespace vorlix
