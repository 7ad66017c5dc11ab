// SPDX-License-Identifier: Apache-2.0
//
// Creates files that appear under their final names only when they are complete.
#pragma once

#include <string>

#include "Files.h"

namespace vorlix::tool {

/// Throws Failure if the path exists, even as a dangling symbolic link.
void refuseExisting(const std::string& path);

/// Creates a file under a free name: writes a temporary file in the same folder, syncs it, reads it back and renames
/// it. An interruption leaves either the complete file or nothing under that name. The next call removes a temporary
/// file that an interrupted one left. Throws Failure.
void saveNewFile(const std::string& path, const ByteVector& bytes);

/// Renames a file or folder to a name that must be free. Checks and renames in one step if the file system supports
/// that. @return 0, or -1 with `errno` set.
int takeFreeName(const std::string& from, const std::string& to);

}  // namespace vorlix::tool
