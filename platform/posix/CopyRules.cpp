// SPDX-License-Identifier: Apache-2.0
#include "CopyRules.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

// Compares the real places, whatever links lead there.
bool liesInside(const std::string& destination, const std::string& source) {
  std::error_code error;
  const fs::path outer = fs::canonical(source, error);
  if (error) return false;
  const fs::path parent = fs::path(destination).parent_path();
  const fs::path inner = fs::canonical(parent.empty() ? fs::path(".") : parent, error);
  if (error) return false;
  return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

}  // namespace

std::string copyReason(const SystemError& failure) {
  return failure.reason() + ": " + failure.subject;
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::optional<SystemError> copyRefusal(const std::string& source, const std::string& destination) {
  struct stat status = {};
  if (lstat(source.c_str(), &status) != 0) return SystemError{errno, source};
  struct stat taken = {};
  if (lstat(destination.c_str(), &taken) == 0) return SystemError{EEXIST, destination};
  if (S_ISDIR(status.st_mode) && liesInside(destination, source)) return SystemError{EINVAL, destination};
  return std::nullopt;
}

}  // namespace vorlix
