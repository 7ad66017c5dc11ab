// SPDX-License-Identifier: Apache-2.0
//
// Files that take their place whole: what the systems have calls of their own for.
#pragma once

namespace vorlix {

/// Renames a file to a name that must be free, in one step. @return 0, or -1 with `errno` set: EEXIST where the name is
/// taken, EINVAL or ENOTSUP where the file system has no such call.
int renameToFreeName(const char* from, const char* to);

/// Brings the whole file system that a descriptor is on to its medium. @return 0, or -1 with `errno` set.
int syncFileSystem(int descriptor);

}  // namespace vorlix
