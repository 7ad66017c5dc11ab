// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Descriptor.h>

#include <string>

namespace vorlix::tool {

/// A folder in the folder for temporary files, which only this user can enter. It is removed with the object. If the
/// process is killed, the user's next command that makes one removes it: while an object lives, its folder is locked.
class ViewFolder {
 public:
  /// Throws Failure.
  ViewFolder();
  ~ViewFolder();
  ViewFolder(const ViewFolder&) = delete;
  ViewFolder& operator=(const ViewFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  Descriptor lock_;
};

}  // namespace vorlix::tool
