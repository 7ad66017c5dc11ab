// SPDX-License-Identifier: Apache-2.0
//
// Folders of mounted volumes. What is on a volume may have been made by anybody: nothing is reached through a link,
// which could lead to a file of the host's, and nothing but files and folders is opened.
#pragma once

#include <Vorlix/platform/Descriptor.h>
#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "Files.h"

namespace vorlix::tool {

/// An open folder of a volume. Names in it are found in any spelling where the volume is one of Windows' own, so that
/// no second name that differs by case alone is made beside one that is there. Functions throw Failure.
class VolumeFolder {
 public:
  /// The root of a volume.
  /// @param caseBlind  whether names on it are the same in any case.
  VolumeFolder(std::string mountPath, bool caseBlind);

  const std::string& path() const { return path_; }
  std::string pathOf(const std::string& name) const { return path_ + (path_ == "/" ? "" : "/") + name; }
  int descriptor() const { return descriptor_.get(); }

  /// The name in the spelling that the folder has; absent where it has none. Several spellings, of which Windows sees
  /// one only, are refused.
  std::optional<std::string> find(const std::string& name) const;

  /// The same for a regular file; absent also for anything else of that name.
  std::optional<std::string> findFile(const std::string& name) const;

  /// What an item is, itself and not what it links to. Absent where there is none.
  std::optional<struct stat> statusOf(const std::string& name) const;

  /// A folder in this one; refused if it is missing or anything else.
  VolumeFolder folder(const std::string& name) const;

  /// A folder below this one, by its path: "/EFI/Boot"; empty for this folder. Refused like folder().
  VolumeFolder folderAt(const std::string& path) const;

  /// The same; absent if there is none, or if a step of the path is no folder.
  std::optional<VolumeFolder> findFolderAt(const std::string& path) const;

  /// The names of all items, in the folder's spelling.
  std::vector<std::string> names() const;

  /// The whole of a regular file; what is anything else is refused without being opened.
  ByteVector content(const std::string& name, size_t limit) const;

  /// Brings the folder's names to the medium.
  void sync(const std::string& state) const;

 private:
  VolumeFolder(std::string path, bool caseBlind, Descriptor descriptor);
  std::optional<VolumeFolder> walk(const std::string& path, bool mustExist) const;
  std::string path_;
  bool caseBlind_;
  Descriptor descriptor_;
};

/// "is a symbolic link", "is a pipe", ... of what is neither a file nor a folder, else "is a folder" or "is a file".
std::string kindText(mode_t mode);

/// fsync() of a folder. Drivers without that call count as done: what follows is a sync of the whole volume.
int syncFolder(int descriptor);

}  // namespace vorlix::tool
