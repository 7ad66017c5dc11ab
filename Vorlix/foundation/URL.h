// SPDX-License-Identifier: Apache-2.0
/// @file
/// A file URL as a value.
#pragma once

#include <string>
#include <utility>

namespace vorlix {

/// A file URL, stored as its path. Two URLs are equal if their paths are.
class URL {
 public:
  URL() = default;

  /// @param path         without a slash at its end, except for "/"; may be relative.
  /// @param isDirectory  whether the text of the URL ends with a slash, as that of a folder does.
  static URL fileURLWithPath(std::string path, bool isDirectory = false) {
    URL url;
    url.path_ = std::move(path);
    url.isDirectory_ = isDirectory;
    return url;
  }

  /// Returns the path, decoded, without a slash at its end (but for "/").
  const std::string& path() const { return path_; }
  bool hasDirectoryPath() const { return isDirectory_; }  ///< whether it was made for a folder

  /// Compares the paths.
  friend bool operator==(const URL& left, const URL& right) { return left.path_ == right.path_; }

 private:
  std::string path_;
  bool isDirectory_ = false;
};

}  // namespace vorlix
