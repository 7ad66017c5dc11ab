// SPDX-License-Identifier: Apache-2.0
#include "ImageFiles.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>

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

}  // namespace

std::string imageBSDName(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  if (error) return path;
  // A ".." that follows a link does not lead to where the text says.
  const bool climbs = std::find(absolute.begin(), absolute.end(), "..") != absolute.end();
  return climbs ? absolute.string() : absolute.lexically_normal().string();
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
