// SPDX-License-Identifier: Apache-2.0
#include "FileReplacement.h"

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "Complaint.h"
#include "Failure.h"

namespace vorlix::tool {

FileReplacement::FileReplacement(const VolumeFolder& folder, std::string name)
    : folder_(folder), name_(std::move(name)), aside_(asideNameOf(name_)) {
  if (flock(folder_.descriptor(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    throw Failure(folder_.path(), "another process is replacing " + name_);
  }
  const std::optional<struct stat> leftover = folder_.statusOf(aside_);
  if (!leftover) return;
  if (S_ISDIR(leftover->st_mode)) throw Failure(folder_.pathOf(aside_), "is a folder; remove it");
  if (unlinkat(folder_.descriptor(), aside_.c_str(), 0) != 0) throw Failure::ofErrno(folder_.pathOf(aside_), errno);
}

FileReplacement::~FileReplacement() {
  if (!isAside_ || unlinkat(folder_.descriptor(), aside_.c_str(), 0) == 0) return;
  complain(folder_.pathOf(aside_) + ": cannot be removed: " + std::strerror(errno) + "; the next run tries again");
}

void FileReplacement::replaceBy(const ByteVector& bytes, const std::function<void()>& placed) {
  const std::optional<struct stat> old = folder_.statusOf(name_);
  const std::string state = old ? "the old one stands there unchanged" : "none was made";
  constexpr mode_t kMode = 0666;  // less the process's umask
  const Descriptor file(
      openat(folder_.descriptor(), aside_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  if (!file) throw Failure::ofErrno(folder_.pathOf(name_), errno, state);
  isAside_ = true;
  if (old) static_cast<void>(fchmod(file.get(), old->st_mode & 0777U));  // where the volume has modes
  writeAndReadBack(file.get(), folder_.pathOf(name_), bytes, state);
  if (renameat(folder_.descriptor(), aside_.c_str(), folder_.descriptor(), name_.c_str()) != 0) {
    throw Failure::ofErrno(folder_.pathOf(name_), errno, state);
  }
  isAside_ = false;
  placed();
  const char* const kUnsure = "the new one stands there, but may not be on the medium";
  folder_.sync(kUnsure);
  if (platform().filesInPlace->syncFileSystem(folder_.descriptor()) != 0) {
    throw Failure::ofErrno(folder_.pathOf(name_), errno, kUnsure);
  }
}

}  // namespace vorlix::tool
