// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: looking at files and folders by path.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// What stands at a path.
enum class FileKind {
  file,    ///< a regular file
  folder,  ///< a folder
  other    ///< a device, a pipe or a socket
};

/// Looks and never writes. Any thread may ask. A path is taken as it is: "~" is a name like any other, and a relative
/// path begins at the process's working folder.
class Files {
 public:
  virtual ~Files() = default;

  /// What stands at a path, symbolic links followed. Absent if nothing does, if a link leads nowhere, or if the system
  /// refuses to tell.
  virtual std::optional<FileKind> kindOf(const std::string& path) = 0;

  /// Returns whether the last name of a path is a symbolic link, wherever that leads.
  virtual bool isLink(const std::string& path) = 0;

  /// Names of a folder's entries, without "." and "..", in the order that the file system gives them. Absent if the
  /// folder cannot be listed.
  virtual std::optional<std::vector<std::string>> namesIn(const std::string& folder) = 0;

  /// The bytes of a file. Absent if it cannot be read or is larger than `limit` bytes.
  virtual std::optional<std::string> contentsOf(const std::string& path, size_t limit) = 0;
};

}  // namespace vorlix
