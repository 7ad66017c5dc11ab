// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/VolumeMirrors.h>

#include <memory>
#include <optional>
#include <string>

#include "Files.h"

namespace vorlix::tool {

/// A file in a folder of the EFI System Partition, read and replaced without mounting it. Functions throw Failure.
class UnmountedFile {
 public:
  /// Finds the folder and the file in whatever spelling they stand there. Null where the volume is mounted, or has to
  /// be.
  /// @param folder  the names of the folders, like "EFI/Microsoft/Boot"
  static std::unique_ptr<UnmountedFile> open(const std::string& slice, const std::string& folder,
                                             const std::string& name, size_t limit);

  /// The content before; absent where there was no file.
  const std::optional<ByteVector>& old() const { return old_; }

  /// How many bytes the file can have.
  uint64_t room() const { return volume_->roomFor(path_); }

  /// Writes the file and compares what is then on the medium. Failures say what is there.
  /// @return the folder of the backup; empty if there is none.
  std::string replaceBy(const ByteVector& bytes, const ChangeBackup& backup);

 private:
  UnmountedFile() = default;
  std::string placeOf(const std::string& path) const { return slice_ + ":" + path; }
  std::optional<UnmountedVolume::Item> find(const std::string& folder, const std::string& name) const;
  void findFolder(const std::string& names);
  void findFile(const std::string& name, size_t limit);

  std::string slice_;
  std::unique_ptr<UnmountedVolume> volume_;
  std::string folder_;
  std::string path_;
  std::optional<ByteVector> old_;
};

}  // namespace vorlix::tool
