// SPDX-License-Identifier: Apache-2.0
#include "MirrorTree.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

#include "MirrorWalk.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

Refusal addEntry(const std::string& path, const std::string& name, MirrorTree& tree) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return dissenterFor(errno, path);
  if (S_ISDIR(status.st_mode)) {
    tree[name] = {true, 0, 0, 0, 0};
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    return Dissenter{kDissentUnsupported, path + " is neither a file nor a folder; a FAT volume cannot hold it"};
  }
  if (status.st_size > std::numeric_limits<uint32_t>::max()) {
    return Dissenter{kDissentUnsupported, path + " is too large for a FAT volume"};
  }
  tree[name] = {false, static_cast<uint64_t>(status.st_size), nanoseconds(status.st_mtim), nanoseconds(status.st_ctim),
                status.st_ino};
  return std::nullopt;
}

}  // namespace

Refusal scanMirror(const std::string& folder, MirrorTree& tree) {
  tree.clear();
  return forEachBelow(folder,
                      [&](const std::string& path) { return addEntry(path, path.substr(folder.size()), tree); });
}

Refusal setMirrorModes(const std::string& folder, bool readOnly) {
  const Refusal refusal = forEachBelow(folder, [&](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return dissenterFor(errno, path);
    // Folders of a read-only mirror become read-only after this walk.
    const mode_t mode = S_ISDIR(status.st_mode) ? 0700 : readOnly ? 0400 : 0600;
    if (chmod(path.c_str(), mode) != 0) return dissenterFor(errno, path);
    return std::nullopt;
  });
  if (refusal || !readOnly) return refusal;
  return forEachBelow(folder, [&](const std::string& path) -> Refusal {
    std::error_code error;
    if (fs::is_directory(path, error) && chmod(path.c_str(), 0500) != 0) return dissenterFor(errno, path);
    return std::nullopt;
  });
}

Refusal removeMirrorTree(const std::string& folder) {
  std::error_code error;
  chmod(folder.c_str(), 0700);
  static_cast<void>(forEachBelow(folder, [](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) chmod(path.c_str(), 0700);
    return std::nullopt;
  }));
  fs::remove_all(folder, error);
  if (error) return dissenterFor(error.value(), folder);
  return std::nullopt;
}

}  // namespace vorlix
