// SPDX-License-Identifier: Apache-2.0
#include "ImageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMostFiles = 64;

struct FileList {
  std::mutex mutex;
  std::vector<std::string> names;
};

FileList& fileList() {
  static FileList list;
  return list;
}

// Otherwise `errno` is set.
bool leadsTo(const std::string& path, const struct stat& file) {
  struct stat found = {};
  if (stat(path.c_str(), &found) != 0) return false;
  errno = ESTALE;
  return found.st_dev == file.st_dev && found.st_ino == file.st_ino;
}

std::string kernelPathOf(const std::string& path) {
  const Descriptor descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!descriptor) return "";
  std::error_code error;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor.get()), error).string();
}

std::string absoluteName(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  if (error) return path;
  // A ".." after a link does not lead to the folder before it in the text.
  const bool climbs = std::find(absolute.begin(), absolute.end(), "..") != absolute.end();
  return climbs ? absolute.string() : absolute.lexically_normal().string();
}

}  // namespace

std::string imageBSDName(const std::string& path) {
  if (path.starts_with('/')) return absoluteName(path);
  struct stat image = {};
  std::optional<std::string> name;
  if (stat(path.c_str(), &image) == 0) name = lastingImageName(path, image);
  return name ? *name : absoluteName(path);
}

std::optional<std::string> lastingImageName(const std::string& path, const struct stat& image) {
  std::string name = absoluteName(path);
  if (path.starts_with('/') || leadsTo(name, image)) return name;
  const int reason = errno;
  // A link may lead out of a working folder that this user cannot reach by its path.
  std::string shorter = kernelPathOf(path);
  if (!shorter.empty() && leadsTo(shorter, image)) return shorter;
  errno = reason;
  return std::nullopt;
}

void noteImageFile(const std::string& name) {
  FileList& list = fileList();
  const std::lock_guard<std::mutex> guard(list.mutex);
  const auto found = std::find(list.names.begin(), list.names.end(), name);
  if (found != list.names.end()) {
    list.names.erase(found);
  } else if (list.names.size() == kMostFiles) {
    list.names.erase(list.names.begin());
  }
  list.names.push_back(name);
}

std::vector<std::string> namedImageFiles() {
  FileList& list = fileList();
  const std::lock_guard<std::mutex> guard(list.mutex);
  return list.names;
}

}  // namespace vorlix
