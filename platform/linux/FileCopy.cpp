// SPDX-License-Identifier: Apache-2.0
#include "FileCopy.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include "platform/posix/CopyRules.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

using Failure = std::optional<SystemError>;

constexpr size_t kBufferSize = 256 * 1024;
constexpr size_t kMostAtOnce = size_t{1} << 30;

// Errors of file systems without the attribute, and of users who may not set it.
bool isNoFailure(int error) {
  return error == EPERM || error == EACCES || error == ENOTSUP || error == EOPNOTSUPP || error == ENOSYS ||
         error == EINVAL || error == ENODATA || error == E2BIG || error == ERANGE || error == ENOSPC;
}

Failure attributeFailure(int result, const std::string& path) {
  if (result == 0 || isNoFailure(errno)) return std::nullopt;
  return SystemError{errno, path};
}

Failure copyExtendedAttributes(const std::string& source, const std::string& destination) {
  const ssize_t size = llistxattr(source.c_str(), nullptr, 0);
  if (size <= 0) return attributeFailure(size < 0 ? -1 : 0, source);
  std::string names(static_cast<size_t>(size), '\0');
  const ssize_t listed = llistxattr(source.c_str(), names.data(), names.size());
  if (listed < 0) return attributeFailure(-1, source);
  names.resize(static_cast<size_t>(listed));
  for (size_t at = 0; at < names.size();) {
    const std::string name = names.c_str() + at;
    at += name.size() + 1;
    std::vector<char> value(XATTR_SIZE_MAX);
    const ssize_t length = lgetxattr(source.c_str(), name.c_str(), value.data(), value.size());
    if (length < 0) {
      if (Failure failed = attributeFailure(-1, source)) return failed;
      continue;
    }
    const int set = lsetxattr(destination.c_str(), name.c_str(), value.data(), static_cast<size_t>(length), 0);
    if (Failure failed = attributeFailure(set, destination)) return failed;
  }
  return std::nullopt;
}

// The order matters: changing the owner clears bits of the mode, and each of these calls changes the times.
Failure copyAttributes(const std::string& source, const std::string& destination, const struct stat& status) {
  if (Failure failed = copyExtendedAttributes(source, destination)) return failed;
  const int owned = lchown(destination.c_str(), status.st_uid, status.st_gid);
  if (Failure failed = attributeFailure(owned, destination)) return failed;
  if (!S_ISLNK(status.st_mode)) {
    mode_t mode = status.st_mode & 07777U;
    if (owned != 0) mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    if (Failure failed = attributeFailure(chmod(destination.c_str(), mode), destination)) return failed;
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  return attributeFailure(utimensat(AT_FDCWD, destination.c_str(), times, AT_SYMLINK_NOFOLLOW), destination);
}

Failure copyByReading(int from, int to, const std::string& source, const std::string& destination) {
  std::vector<char> buffer(kBufferSize);
  for (;;) {
    const ssize_t got = read(from, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return SystemError{errno, source};
    if (got == 0) return std::nullopt;
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = write(to, buffer.data() + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put < 0) return SystemError{errno, destination};
      done += put;
    }
  }
}

// The kernel's call works for some file systems and files. Where it stops, reading continues at the same positions.
Failure copyContent(int from, int to, const std::string& source, const std::string& destination) {
  ssize_t moved = 0;
  do moved = copy_file_range(from, nullptr, to, nullptr, kMostAtOnce, 0);
  while (moved > 0 || (moved < 0 && errno == EINTR));
  if (moved < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) return SystemError{errno, destination};
  return copyByReading(from, to, source, destination);
}

Failure copyFile(const std::string& source, const std::string& destination) {
  // Not blocking, in case a pipe has replaced the file.
  const Descriptor from(open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (!from || fstat(from.get(), &status) != 0) return SystemError{errno, source};
  if (!S_ISREG(status.st_mode)) return SystemError{ENOTSUP, source};
  Descriptor to(aboveStandardStreams(open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)));
  if (!to) return SystemError{errno, destination};
  if (Failure failed = copyContent(from.get(), to.get(), source, destination)) return failed;
  if (close(to.release()) != 0) return SystemError{errno, destination};  // some file systems write only now
  return copyAttributes(source, destination, status);
}

Failure copyLink(const std::string& source, const std::string& destination, const struct stat& status) {
  std::error_code error;
  const fs::path target = fs::read_symlink(source, error);
  if (error) return SystemError{error.value(), source};
  if (symlink(target.c_str(), destination.c_str()) != 0) return SystemError{errno, destination};
  return copyAttributes(source, destination, status);
}

// Closes the folder before its items are copied, so that deep folders need no more descriptors.
Failure namesIn(const std::string& folder, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(folder.c_str()), closedir);
  if (!stream) return SystemError{errno, folder};
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(stream.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (errno != 0) return SystemError{errno, folder};
  std::sort(names.begin(), names.end());
  return std::nullopt;
}

Failure copyAny(const std::string& source, const std::string& destination);

Failure copyFolder(const std::string& source, const std::string& destination, const struct stat& status) {
  std::vector<std::string> names;
  if (Failure failed = namesIn(source, names)) return failed;
  if (mkdir(destination.c_str(), 0700) != 0) return SystemError{errno, destination};
  for (const std::string& name : names) {
    if (Failure failed = copyAny(source + "/" + name, destination + "/" + name)) return failed;
  }
  return copyAttributes(source, destination, status);
}

Failure copyAny(const std::string& source, const std::string& destination) {
  struct stat status = {};
  if (lstat(source.c_str(), &status) != 0) return SystemError{errno, source};
  if (S_ISDIR(status.st_mode)) return copyFolder(source, destination, status);
  if (S_ISLNK(status.st_mode)) return copyLink(source, destination, status);
  if (S_ISREG(status.st_mode)) return copyFile(source, destination);
  return SystemError{ENOTSUP, source};
}

}  // namespace

std::optional<std::string> LinuxFileCopy::copyItem(const std::string& source, const std::string& destination) {
  const std::string from = withoutTrailingSlashes(source);
  const std::string to = withoutTrailingSlashes(destination);
  Failure failure = copyRefusal(from, to);
  if (!failure) failure = copyAny(from, to);
  return failure ? std::optional(copyReason(*failure)) : std::nullopt;
}

}  // namespace vorlix
