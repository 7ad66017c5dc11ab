// SPDX-License-Identifier: Apache-2.0
//
// A FAT file system in a file, changed with mtools. It is a private copy of a volume, never a disk.
#pragma once

#include <string>
#include <vector>

#include "Dissenters.h"

namespace vorlix {

/// Paths start with "/" at the root of the volume. A program that ends with another status than 0, or has something to
/// say on standard error, has failed: a refusal with its text. What it did all the same is looked at afterwards.
class Mtools {
 public:
  /// Works on the file system at the start of an open file, which stays the caller's and outlives this object.
  explicit Mtools(int descriptor) : descriptor_(descriptor) {}

  /// Copies a file of the system to `path`, in place of one that is there, with its time of modification.
  Refusal write(const std::string& file, const std::string& path) const;

  Refusal makeFolder(const std::string& path) const;

  /// Gives a file another name in the same folder, which nothing there has.
  Refusal rename(const std::string& path, const std::string& name) const;

  /// Removes a file, or a folder with all that is in it. None of it is read-only.
  Refusal remove(const std::string& path, bool isFolder) const;

  /// Gives or takes attributes, as "+r +h".
  Refusal setAttributes(const std::string& path, const std::vector<std::string>& changes) const;

 private:
  Refusal run(const std::string& what, const std::vector<std::string>& arguments) const;

  int descriptor_;
};

}  // namespace vorlix
