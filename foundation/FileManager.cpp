// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/FileManager.h>

#include <filesystem>
#include <system_error>

namespace vorlix {

namespace fs = std::filesystem;

std::shared_ptr<FileManager> FileManager::defaultManager() {
  static const auto* const manager = new std::shared_ptr<FileManager>(std::make_shared<FileManager>());
  return *manager;  // never destroyed: the shared device manager holds it for the process's life
}

bool FileManager::fileExistsAtPath(const std::string& path) {
  bool isDirectory = false;
  return fileExistsAtPath(path, isDirectory);
}

bool FileManager::fileExistsAtPath(const std::string& path, bool& isDirectory) {
  std::error_code unreadable;
  const fs::file_status status = fs::status(path, unreadable);
  if (!fs::exists(status)) return false;
  isDirectory = fs::is_directory(status);
  return true;
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(const std::string& path) {
  std::error_code failure;
  std::vector<std::string> names;
  for (fs::directory_iterator entry(path, failure); entry != fs::directory_iterator(); entry.increment(failure)) {
    names.push_back(entry->path().filename().string());
  }
  if (failure) return std::nullopt;
  return names;
}

}  // namespace vorlix
