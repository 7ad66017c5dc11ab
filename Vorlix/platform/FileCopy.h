// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: copies of files and folders with their attributes.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// Port: copies files and folders.
class FileCopy {
 public:
  virtual ~FileCopy() = default;

  /// Copies a file, a symbolic link (as a link) or a folder with its contents to a path that must not exist, in a
  /// folder that must exist. Keeps permissions and times, and the owner and extended attributes if both file systems
  /// have them. An attribute that the file system cannot store is no failure. What was copied before a failure stays.
  ///
  /// @return the reason of a failure as text; absent for success.
  virtual std::optional<std::string> copyItem(const std::string& source, const std::string& destination) = 0;
};

}  // namespace vorlix
