// SPDX-License-Identifier: Apache-2.0
#include "ViewFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Failure.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolderStart = "vorlix-view-";

// A folder of this user, locked. Empty if it is gone, is not one, or belongs to a process that runs.
Descriptor lockFolder(const std::string& path) {
  Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened = {};
  struct stat named = {};
  const bool isOwn = folder && fstat(folder.get(), &opened) == 0 && opened.st_uid == geteuid() &&
                     flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
  // Another process may have removed it before the lock, and yet another one made it anew.
  const bool isStillNamed =
      isOwn && lstat(path.c_str(), &named) == 0 && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
  return isStillNamed ? std::move(folder) : Descriptor();
}

// Removes the folders of this user's processes that were killed.
void removeLeftFolders(const fs::path& parent) {
  std::error_code unreadable;
  for (fs::directory_iterator item(parent, unreadable), end; !unreadable && item != end; item.increment(unreadable)) {
    if (!item->path().filename().string().starts_with(kFolderStart)) continue;
    std::error_code ignored;
    if (lockFolder(item->path())) fs::remove_all(item->path(), ignored);
  }
}

}  // namespace

ViewFolder::ViewFolder() {
  std::error_code none;
  const fs::path found = fs::temp_directory_path(none);
  const fs::path parent = none ? fs::path("/tmp") : found;
  removeLeftFolders(parent);
  // Another command may take a new folder for one that was left, until it is locked.
  constexpr int kAttempts = 10;
  for (int i = 0; i < kAttempts && !lock_; ++i) {
    path_ = parent / (std::string(kFolderStart) + "XXXXXX");
    if (mkdtemp(path_.data()) == nullptr) throw Failure::ofErrno(path_, errno);
    lock_ = lockFolder(path_);
  }
  if (!lock_) throw Failure(path_, "another process removes it again and again");
}

ViewFolder::~ViewFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

}  // namespace vorlix::tool
