// SPDX-License-Identifier: Apache-2.0
#include "NewFile.h"

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "Failure.h"
#include "VolumeFolder.h"

namespace vorlix::tool {
namespace {

constexpr const char* kNoFile = "no file was created";
constexpr size_t kLongestStart = 200;  // bytes of a file name that its temporary name repeats, to stay within NAME_MAX

bool exists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

bool isSameFile(int descriptor, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(descriptor, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// A temporary file in the folder of the new file. Stays locked until the object's end.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& path) : path_(path) {
    file_ = create();
    if (!file_ && errno == EEXIST) {
      removeLeftover();
      file_ = create();
    }
    if (!file_) throw Failure::ofErrno(path_, errno, kNoFile);
    isThere_ = true;
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0 || !isSameFile(file_.get(), path_)) {
      isThere_ = false;  // another process took it for a leftover of an interrupted run
      throw Failure(path_, "another process is creating it", kNoFile);
    }
  }
  ~TemporaryFile() {
    if (isThere_) unlink(path_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int descriptor() const { return file_.get(); }
  void hasMoved() { isThere_ = false; }

 private:
  Descriptor create() const {
    constexpr mode_t kMode = 0666;  // the process's umask applies
    return Descriptor(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  }

  // Removes the file of an interrupted process. Fails if a running process has it locked.
  void removeLeftover() const {
    const Descriptor old(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!old) throw Failure::ofErrno(path_, errno, kNoFile);
    if (flock(old.get(), LOCK_EX | LOCK_NB) != 0) throw Failure(path_, "another process is creating it", kNoFile);
    if (unlink(path_.c_str()) != 0) throw Failure::ofErrno(path_, errno, kNoFile);
  }

  std::string path_;
  Descriptor file_;
  bool isThere_ = false;
};

}  // namespace

void refuseExisting(const std::string& path) {
  if (exists(path)) throw Failure(path, "already exists; a saved file is never overwritten");
}

int takeFreeName(const std::string& from, const std::string& to) {
  if (platform().filesInPlace->renameToFreeName(from.c_str(), to.c_str()) == 0) return 0;
  if (errno != EINVAL && errno != ENOTSUP && errno != ENOSYS) return -1;
  struct stat status = {};
  const bool isFile = lstat(from.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  if (isFile && link(from.c_str(), to.c_str()) == 0) {
    unlink(from.c_str());
    return 0;
  }
  if (isFile && errno == EEXIST) return -1;
  if (exists(to)) {
    errno = EEXIST;
    return -1;
  }
  return rename(from.c_str(), to.c_str());
}

void saveNewFile(const std::string& path, const ByteVector& bytes) {
  refuseExisting(path);
  const std::filesystem::path target(path);
  const std::filesystem::path folder = target.has_parent_path() ? target.parent_path() : ".";
  const std::string name = target.filename().string();
  const std::string beside = folder / ("." + name.substr(0, kLongestStart) + ".vorlix-new");
  TemporaryFile file(beside);
  writeAndReadBack(file.descriptor(), path, bytes, kNoFile);
  if (takeFreeName(beside, path) != 0) {
    if (errno == EEXIST) refuseExisting(path);
    throw Failure::ofErrno(path, errno, kNoFile);
  }
  file.hasMoved();
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened || syncFolder(opened.get()) != 0) {
    throw Failure::ofErrno(path, errno, "the file was created, but may be lost on a power failure");
  }
}

}  // namespace vorlix::tool
