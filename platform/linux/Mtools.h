// SPDX-License-Identifier: Apache-2.0
//
// A FAT file system in a run of a device's bytes, reached with mtools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Dissenters.h"

namespace vorlix {

/// Paths start with "/" at the root of the volume. A refusal's text is what the program wrote to standard error.
///
/// mtools answers some failures, such as a full disk, with success; what matters is looked at afterwards.
class Mtools {
 public:
  /// Works on the file system at `offset` of an open device, which stays the caller's and outlives this object.
  Mtools(int descriptor, uint64_t offset) : descriptor_(descriptor), offset_(offset) {}

  struct Entry {
    std::string path;
    bool isFolder = false;
    std::string attributes;  ///< of a file, the letters of "RHS" that it has
  };

  /// All files and folders but the root, a folder before what is in it.
  Refusal list(std::vector<Entry>& entries) const;

  /// One file or folder; kDissentNotFound where there is none.
  Refusal find(const std::string& path, Entry& entry) const;

  /// Copies everything into a folder of the system, times included.
  Refusal copyAllTo(const std::string& folder) const;

  /// Compares the content of a file with that of a file of the system.
  Refusal compare(const std::string& path, const std::string& file, bool& isEqual) const;

  /// Copies a file of the system to `path`, in place of one that is there, with its time of modification.
  Refusal write(const std::string& file, const std::string& path) const;

  Refusal makeFolder(const std::string& path) const;

  /// Removes a file, or a folder with all that is in it.
  Refusal remove(const std::string& path, bool isFolder) const;

  /// Gives a file the attributes among `letters` ("RHS").
  Refusal addAttributes(const std::string& path, const std::string& letters) const;

 private:
  struct Result;

  Result run(std::vector<std::string> arguments) const;
  std::string image() const;

  int descriptor_;
  uint64_t offset_;
};

}  // namespace vorlix
