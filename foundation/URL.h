// SPDX-License-Identifier: Apache-2.0
/// @file
/// The location of a file as a value.
#pragma once

#include <string>
#include <utility>

namespace vorlix {

/// A file URL, kept as the file-system path that it names.
class URL {
 public:
  URL() = default;

  static URL fileURLWithPath(std::string path) {
    URL url;
    url.path_ = std::move(path);
    return url;
  }

  const std::string& path() const { return path_; }

  friend bool operator==(const URL&, const URL&) = default;

 private:
  std::string path_;
};

}  // namespace vorlix
