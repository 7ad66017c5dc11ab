// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: looking at files and folders by path.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// What a path leads to.
enum class FileKind {
  file,    ///< a regular file
  folder,  ///< a folder
  other    ///< a device, a pipe or a socket
};

/// Never writes. Any thread may call it. Paths are used unchanged: "~" has no meaning, and a relative path begins at
/// the process's working folder.
class Files {
 public:
  virtual ~Files() = default;

  /// Returns what a path leads to, following symbolic links. Absent if it does not exist, if a link leads nowhere, or
  /// if the process may not look there.
  virtual std::optional<FileKind> kindOf(const std::string& path) = 0;

  /// Returns whether the last name of a path is a symbolic link, wherever it leads.
  virtual bool isLink(const std::string& path) = 0;

  /// Returns the names in a folder without "." and "..", in the file system's order. Absent if the folder cannot be
  /// listed.
  virtual std::optional<std::vector<std::string>> namesIn(const std::string& folder) = 0;

  /// Returns the bytes of a file. Absent if it cannot be read or is larger than `limit` bytes.
  virtual std::optional<std::string> contentsOf(const std::string& path, size_t limit) = 0;
};

}  // namespace vorlix
