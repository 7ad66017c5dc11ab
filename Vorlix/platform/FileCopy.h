// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: copies of files and folders with their attributes.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

class FileCopy {
 public:
  virtual ~FileCopy() = default;

  /// Copies a file, a symbolic link (as a link) or a folder with all its contents to a path that must not exist yet;
  /// the folder it stands in must. Permissions and times, and where both file systems have them owner and extended
  /// attributes, are kept; a file system that cannot hold one of these is no failure. What was copied before a failure
  /// stays.
  ///
  /// @return absent for success, else the reason in words.
  virtual std::optional<std::string> copyItem(const std::string& source, const std::string& destination) = 0;
};

}  // namespace vorlix
