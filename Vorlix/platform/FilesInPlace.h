// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the calls that programs need to put complete, synced files in place, which differ between POSIX systems.
#pragma once

#include <cstdint>

namespace vorlix {

/// The descriptors are open descriptors of this process; their owner closes them.
class FilesInPlace {
 public:
  virtual ~FilesInPlace() = default;

  /// Writes a descriptor's data to the medium, including the medium's own cache if the system has a call for that.
  /// @return 0, or -1 with `errno` set.
  virtual int sync(int descriptor) = 0;

  /// Makes the next read of these bytes read the medium, as far as programs can ask the system for that. Call sync()
  /// first.
  virtual void forgetCached(int descriptor, uint64_t offset, uint64_t count) = 0;

  /// Syncs the whole file system that a descriptor is on. @return 0, or -1 with `errno` set.
  virtual int syncFileSystem(int descriptor) = 0;

  /// Renames a file to a name that must not exist, in one step. @return 0, or -1 with `errno` set: EEXIST if the name
  /// exists, EINVAL or ENOTSUP if the file system has no such call.
  virtual int renameToFreeName(const char* from, const char* to) = 0;
};

}  // namespace vorlix
