// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

#include "Files.h"
#include "VolumeFolder.h"

namespace vorlix::tool {

/// A file of a folder of a volume, replaced in one step: whatever cuts it off, the old or the new one stands there
/// whole.
class FileReplacement {
 public:
  /// The name under which the new content stands beside the file until it is complete.
  static std::string asideNameOf(const std::string& name) { return name + ".vorlix-new"; }

  /// Takes away what a replacement that was cut off has left in the folder. Throws Failure, also where another process
  /// is at it.
  /// @param name  how the file is spelled there, or is to be
  FileReplacement(const VolumeFolder& folder, std::string name);
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  /// Writes the content to a temporary name, syncs it, compares what is read back, and renames it. Throws Failure,
  /// which says what is there.
  /// @param placed  called once the new file has its name, which a later failure does not take back
  void replaceBy(const ByteVector& bytes, const std::function<void()>& placed);

 private:
  const VolumeFolder& folder_;
  std::string name_;
  std::string aside_;
  bool isAside_ = false;
};

}  // namespace vorlix::tool
