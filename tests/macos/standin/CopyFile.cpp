// SPDX-License-Identifier: Apache-2.0
//
// copyfile(): walks a tree entry by entry, and calls back when an entry starts, ends or fails.
#include <copyfile.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "System.h"
#include "platform/simulated/SimulatedState.h"

struct _copyfile_state {
  copyfile_callback_t callback = nullptr;
  void* context = nullptr;
};

namespace vorlix::standin {
namespace {

namespace fs = std::filesystem;

void require(bool ok) {
  if (!ok) throw std::system_error(errno, std::generic_category());
}

void keepTimesAndMode(const fs::path& from, const fs::path& to) {
  struct stat status = {};
  require(lstat(from.c_str(), &status) == 0);
  if (!S_ISLNK(status.st_mode)) {
    std::string names(4096, '\0');
    const ssize_t size = listxattr(from.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < size;
         at += static_cast<ssize_t>(std::char_traits<char>::length(&names[size_t(at)])) + 1) {
      std::string value(4096, '\0');
      const ssize_t got = getxattr(from.c_str(), &names[size_t(at)], value.data(), value.size());
      if (got >= 0) setxattr(to.c_str(), &names[size_t(at)], value.data(), size_t(got), 0);
    }
  }
  static_cast<void>(!lchown(to.c_str(), status.st_uid, status.st_gid));
  if (!S_ISLNK(status.st_mode)) require(chmod(to.c_str(), status.st_mode & 07777) == 0);
  const timespec times[2] = {status.st_atimespec, status.st_mtimespec};
  require(utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0);
}

void copyBytes(const fs::path& from, const fs::path& to) {
  const int source = open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  require(source >= 0);
  const int target = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const int reason = errno;
  ssize_t got = -1;
  std::vector<char> bytes(1 << 20);
  bool ok = target >= 0;
  while (ok && (got = read(source, bytes.data(), bytes.size())) > 0) {
    ok = write(target, bytes.data(), static_cast<size_t>(got)) == got;
  }
  ok = ok && got == 0;
  const int failure = target < 0 ? reason : errno;
  close(source);
  if (target >= 0) close(target);
  errno = failure;
  require(ok);
}

void copyOne(const fs::path& from, const fs::path& to) {
  const fs::file_status status = fs::symlink_status(from);
  if (fs::is_symlink(status)) {
    fs::copy_symlink(from, to);
    keepTimesAndMode(from, to);
    return;
  }
  if (!fs::is_regular_file(status)) throw std::system_error(ENOTSUP, std::generic_category());
  copyBytes(from, to);
  keepTimesAndMode(from, to);
}

/// Whether the copy goes on.
class Told {
 public:
  explicit Told(copyfile_state_t state) : state_(state) {}

  bool isQuit(int what, int stage, const fs::path& from, const fs::path& to) const {
    if (state_ == nullptr || state_->callback == nullptr) return stage == COPYFILE_ERR;
    return state_->callback(what, stage, state_, from.c_str(), to.c_str(), state_->context) == COPYFILE_QUIT;
  }

  bool isFailureQuit(int what, int error, const fs::path& from, const fs::path& to) const {
    errno = error;
    const bool quits = isQuit(what, COPYFILE_ERR, from, to);
    // After the callback cancels the copy, copyfile() reports only that it was cancelled.
    errno = state_ != nullptr && state_->callback != nullptr ? ECANCELED : error;
    return quits;
  }

 private:
  copyfile_state_t state_;
};

bool copyTree(const fs::path& from, const fs::path& to, const Told& told) {
  const bool isFolder = fs::is_directory(fs::symlink_status(from));
  const int what = isFolder ? COPYFILE_RECURSE_DIR : COPYFILE_RECURSE_FILE;
  if (told.isQuit(what, COPYFILE_START, from, to)) return false;
  try {
    if (!isFolder) {
      copyOne(from, to);
      return !told.isQuit(what, COPYFILE_FINISH, from, to);
    }
    require(mkdir(to.c_str(), 0700) == 0);
    std::vector<fs::path> entries;
    for (const auto& entry : fs::directory_iterator(from)) entries.push_back(entry.path());
    std::sort(entries.begin(), entries.end());  // one of the orders that the system may have
    for (const fs::path& entry : entries) {
      if (!copyTree(entry, to / entry.filename(), told)) return false;
    }
    keepTimesAndMode(from, to);
  } catch (const std::system_error& error) {
    return !told.isFailureQuit(what, error.code().value(), from, to);
  }
  return !told.isQuit(COPYFILE_RECURSE_DIR_CLEANUP, COPYFILE_FINISH, from, to);
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix::standin;  // NOLINT: the system's names are global

extern "C" {

copyfile_state_t copyfile_state_alloc(void) {
  ++live()["copyfile_state_t"];
  return new _copyfile_state;
}

int copyfile_state_free(copyfile_state_t state) {
  if (state == nullptr) return 0;
  --live()["copyfile_state_t"];
  delete state;
  return 0;
}

int copyfile_state_set(copyfile_state_t state, uint32_t flag, const void* value) {
  switch (flag) {
    case COPYFILE_STATE_STATUS_CB:
      state->callback = reinterpret_cast<copyfile_callback_t>(const_cast<void*>(value));
      return 0;
    case COPYFILE_STATE_STATUS_CTX:
      state->context = const_cast<void*>(value);
      return 0;
    default:
      errno = EINVAL;
      return -1;
  }
}

int copyfile(const char* from, const char* to, copyfile_state_t state, copyfile_flags_t flags) {
  constexpr copyfile_flags_t kKnown = COPYFILE_ALL | COPYFILE_RECURSIVE | COPYFILE_NOFOLLOW | COPYFILE_EXCL;
  if (flags != kKnown) report("copyfile() was asked for what the stand-in does not do");
  struct stat status = {};
  if (lstat(from, &status) != 0) return -1;
  if (lstat(to, &status) == 0) {
    errno = EEXIST;
    return -1;
  }
  return copyTree(from, to, Told(state)) ? 0 : -1;
}

}  // extern "C"
