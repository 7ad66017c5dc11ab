// SPDX-License-Identifier: Apache-2.0
#include "VolumeFolder.h"

#include <Vorlix/platform/VolumeNames.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <sstream>
#include <utility>

#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

}  // namespace

std::string kindText(mode_t mode) {
  if (S_ISREG(mode)) return "is a file";
  if (S_ISDIR(mode)) return "is a folder";
  if (S_ISLNK(mode)) return "is a symbolic link";
  if (S_ISFIFO(mode)) return "is a pipe";
  if (S_ISSOCK(mode)) return "is a socket";
  return "is a device";
}

int syncFolder(int descriptor) {
  if (fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP || errno == ENOSYS) return 0;
  return -1;
}

VolumeFolder::VolumeFolder(std::string mountPath, bool caseBlind)
    : path_(std::move(mountPath)), caseBlind_(caseBlind), descriptor_(open(path_.c_str(), kFolderFlags)) {
  if (!descriptor_) throw Failure::ofErrno(path_, errno);
}

VolumeFolder::VolumeFolder(std::string path, bool caseBlind, Descriptor descriptor)
    : path_(std::move(path)), caseBlind_(caseBlind), descriptor_(std::move(descriptor)) {}

std::vector<std::string> VolumeFolder::names() const {
  // A descriptor of its own, since the stream moves the position.
  Descriptor again(openat(descriptor_.get(), ".", kFolderFlags));
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(again ? fdopendir(again.get()) : nullptr, closedir);
  if (!stream) throw Failure::ofErrno(path_, errno);
  static_cast<void>(again.release());
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(stream.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (errno != 0) throw Failure::ofErrno(path_, errno);
  return names;
}

std::optional<struct stat> VolumeFolder::statusOf(const std::string& name) const {
  struct stat status = {};
  if (fstatat(descriptor_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return status;
  if (errno == ENOENT) return std::nullopt;
  throw Failure::ofErrno(pathOf(name), errno);
}

std::optional<std::string> VolumeFolder::find(const std::string& name) const {
  if (!caseBlind_) return statusOf(name) ? std::optional<std::string>(name) : std::nullopt;
  const std::vector<std::string> found = spellingsOf(names(), name);
  if (found.empty()) return std::nullopt;
  if (found.size() == 1) return found.front();
  throw Failure(path_, "holds " + found[0] + " and " + found[1] + ", of which Windows sees one only; remove the other");
}

std::optional<std::string> VolumeFolder::findFile(const std::string& name) const {
  std::optional<std::string> spelled = find(name);
  const auto status = spelled ? statusOf(*spelled) : std::nullopt;
  return status && S_ISREG(status->st_mode) ? spelled : std::nullopt;
}

VolumeFolder VolumeFolder::folder(const std::string& name) const {
  const std::optional<std::string> spelled = find(name);
  if (!spelled) throw Failure(pathOf(name), "no such folder on the volume");
  const std::optional<struct stat> status = statusOf(*spelled);
  if (status && !S_ISDIR(status->st_mode)) throw Failure(pathOf(*spelled), kindText(status->st_mode) + ", no folder");
  Descriptor opened(openat(descriptor_.get(), spelled->c_str(), kFolderFlags | O_NOFOLLOW));
  if (!opened) throw Failure::ofErrno(pathOf(*spelled), errno);
  return {pathOf(*spelled), caseBlind_, std::move(opened)};
}

std::optional<VolumeFolder> VolumeFolder::walk(const std::string& path, bool mustExist) const {
  VolumeFolder found(path_, caseBlind_, Descriptor(openat(descriptor_.get(), ".", kFolderFlags)));
  if (!found.descriptor_) throw Failure::ofErrno(path_, errno);
  std::istringstream names(path);
  for (std::string name; std::getline(names, name, '/');) {
    if (name.empty()) continue;
    if (!mustExist) {
      const auto spelled = found.find(name);
      const auto status = spelled ? found.statusOf(*spelled) : std::nullopt;
      if (!status || !S_ISDIR(status->st_mode)) return std::nullopt;
    }
    VolumeFolder next = found.folder(name);
    found = std::move(next);
  }
  return found;
}

VolumeFolder VolumeFolder::folderAt(const std::string& path) const {
  return *walk(path, true);
}

std::optional<VolumeFolder> VolumeFolder::findFolderAt(const std::string& path) const {
  return walk(path, false);
}

ByteVector VolumeFolder::content(const std::string& name, size_t limit) const {
  const std::optional<struct stat> status = statusOf(name);
  if (!status) throw Failure::ofErrno(pathOf(name), ENOENT);
  if (!S_ISREG(status->st_mode)) throw Failure(pathOf(name), kindText(status->st_mode) + ", not a regular file");
  const Descriptor file(openat(descriptor_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) throw Failure::ofErrno(pathOf(name), errno);
  return readWhole(file.get(), pathOf(name), limit);
}

void VolumeFolder::sync(const std::string& state) const {
  if (syncFolder(descriptor_.get()) != 0) throw Failure::ofErrno(path_, errno, state);
}

}  // namespace vorlix::tool
