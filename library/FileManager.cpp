// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/FileManager.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>

namespace vorlix {

std::shared_ptr<FileManager> FileManager::defaultManager() {
  static const auto* const manager = new std::shared_ptr<FileManager>(std::make_shared<FileManager>());
  return *manager;  // never destroyed: the shared device manager uses it until the process ends
}

bool FileManager::fileExistsAtPath(const std::string& path) {
  bool isDirectory = false;
  return fileExistsAtPath(path, isDirectory);
}

bool FileManager::fileExistsAtPath(const std::string& path, bool& isDirectory) {
  const auto kind = platform().files->kindOf(path);
  if (kind) isDirectory = kind == FileKind::folder;
  return kind.has_value();
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(const std::string& path) {
  return platform().files->namesIn(path);
}

}  // namespace vorlix
