// SPDX-License-Identifier: Apache-2.0
//
// Changes a FAT file system in a file with mtools. The file is a private copy of a volume, never a disk.
#pragma once

#include <string>
#include <vector>

#include "Dissenters.h"

namespace vorlix {

/// Paths start with "/" at the root of the volume. A program has failed if its status is not 0 or if it writes to
/// standard error; its text is then the refusal. The caller checks the file system afterwards.
class Mtools {
 public:
  /// Uses the file system at the start of an open file, which belongs to the caller and must outlive this object.
  explicit Mtools(int descriptor) : descriptor_(descriptor) {}

  /// Copies a file of the system, with its time of modification, to `path`. Replaces a file there.
  Refusal write(const std::string& file, const std::string& path) const;

  Refusal makeFolder(const std::string& path) const;

  /// Gives a file another name in the same folder, which no item there has.
  Refusal rename(const std::string& path, const std::string& name) const;

  /// Removes a file, or a folder with its items. None of them may be read-only.
  Refusal remove(const std::string& path, bool isFolder) const;

  /// Sets or clears attributes: "+r", "-h".
  Refusal setAttributes(const std::string& path, const std::vector<std::string>& changes) const;

 private:
  Refusal run(const std::string& what, const std::vector<std::string>& arguments) const;

  int descriptor_;
};

}  // namespace vorlix
