// SPDX-License-Identifier: Apache-2.0
//
// Files that are whole from the moment that they have their name.
#pragma once

#include <string>

#include "Files.h"

namespace vorlix::tool {

/// Throws Failure where anything, a link included, has that name.
void refuseExisting(const std::string& path);

/// Makes a file whose name is free: written aside, brought to the medium, read back, renamed. Whatever cuts it off
/// leaves the whole file or nothing under that name, and the next try takes away what was left beside it. Throws
/// Failure.
void saveNewFile(const std::string& path, const ByteVector& bytes);

/// Renames to a free name, in one step where the file system has such a call. @return 0, or -1 with `errno` set.
int takeFreeName(const std::string& from, const std::string& to);

}  // namespace vorlix::tool
