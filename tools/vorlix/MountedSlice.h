// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::tool {

/// A volume, mounted for reading and writing while a command changes files on it.
///
/// A volume that the kernel had mounted before stays mounted. A mirrored volume changes on its disk only when it is
/// unmounted, so finish() always unmounts it.
class MountedSlice {
 public:
  /// Mounts the slice unless it is mounted. Throws Failure.
  explicit MountedSlice(std::string slice);
  /// Unmounts what it mounted; a refusal is told on standard error.
  ~MountedSlice();
  MountedSlice(const MountedSlice&) = delete;
  MountedSlice& operator=(const MountedSlice&) = delete;

  const std::string& path() const { return path_; }
  bool isMirror() const { return isMirror_; }

  /// Bytes that can still be written to the volume. Absent where that is not known.
  std::optional<uint64_t> freeSpace() const;

  /// Brings what was changed to the disk, by one unmount where that takes one. Throws Failure, which says what stands
  /// where.
  /// @param change  what was changed: "the new store"
  void finish(const std::string& change);

 private:
  std::string slice_;
  std::string path_;
  bool wasMounted_;
  bool isMirror_ = false;
  bool isDone_ = false;
};

}  // namespace vorlix::tool
