// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: files that take their place whole, and are on the medium when they do. For hosts that write files with the
/// POSIX calls: what those calls do not promise on every system.
#pragma once

#include <cstdint>

namespace vorlix {

/// Descriptors are open ones of this process and stay their owner's.
class FilesInPlace {
 public:
  virtual ~FilesInPlace() = default;

  /// Brings a descriptor's data to the medium, through the medium's own cache where the system has a call for it.
  /// @return 0, or -1 with `errno` set.
  virtual int sync(int descriptor) = 0;

  /// Has the next read of these bytes ask the medium, as far as the system lets a program say so. Comes after sync().
  virtual void forgetCached(int descriptor, uint64_t offset, uint64_t count) = 0;

  /// Brings the whole file system that a descriptor is on to its medium. @return 0, or -1 with `errno` set.
  virtual int syncFileSystem(int descriptor) = 0;

  /// Renames a file to a name that must be free, in one step. @return 0, or -1 with `errno` set: EEXIST where the name
  /// is taken, EINVAL or ENOTSUP where the file system has no such call.
  virtual int renameToFreeName(const char* from, const char* to) = 0;
};

}  // namespace vorlix
