// SPDX-License-Identifier: Apache-2.0
#include "ImageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
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

bool isSameFile(const std::string& one, const std::string& other) {
  struct stat first = {};
  struct stat second = {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
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
  const std::string name = absoluteName(path);
  if (path.starts_with('/') || isSameFile(path, name)) return name;
  // A link may lead out of a working folder that this user cannot reach by its path.
  const std::string shorter = kernelPathOf(path);
  return !shorter.empty() && isSameFile(path, shorter) ? shorter : name;
}

void noteImageFile(const std::string& path) {
  const std::string name = imageBSDName(path);
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
