// SPDX-License-Identifier: Apache-2.0
#include "Files.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace vorlix {

namespace fs = std::filesystem;

std::optional<FileKind> PosixFiles::kindOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISDIR(status.st_mode)) return FileKind::folder;
  return S_ISREG(status.st_mode) ? FileKind::file : FileKind::other;
}

bool PosixFiles::isLink(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

std::optional<std::vector<std::string>> PosixFiles::namesIn(const std::string& folder) {
  std::error_code failure;
  std::vector<std::string> names;
  for (fs::directory_iterator entry(folder, failure); entry != fs::directory_iterator(); entry.increment(failure)) {
    names.push_back(entry->path().filename().string());
  }
  if (failure) return std::nullopt;
  return names;
}

std::optional<std::string> PosixFiles::contentsOf(const std::string& path, size_t limit) {
  std::ifstream file(path, std::ios::binary);
  std::string contents(limit + 1, '\0');
  file.read(contents.data(), static_cast<std::streamsize>(contents.size()));
  const auto count = static_cast<size_t>(file.gcount());
  if (file.bad() || (!file.eof() && file.fail()) || count > limit) return std::nullopt;
  contents.resize(count);
  return contents;
}

}  // namespace vorlix
