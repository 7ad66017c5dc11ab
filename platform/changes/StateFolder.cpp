// SPDX-License-Identifier: Apache-2.0
#include "StateFolder.h"

#include <Vorlix/platform/SystemError.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kForEveryone = 0755;
constexpr mode_t kForTheUser = 0700;

bool isSuperUser() {
  return geteuid() == 0;
}

bool isOwnFolder(const fs::path& path) {
  const mode_t forbidden = isSuperUser() ? 0022 : 0077;
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & forbidden) == 0;
}

bool isWritableHome(const char* home) {
  struct stat status = {};
  return home != nullptr && *home == '/' && stat(home, &status) == 0 && S_ISDIR(status.st_mode) &&
         access(home, W_OK) == 0;
}

fs::path stateFolderPath() {
  if (isSuperUser()) return "/var/lib/vorlix";
  if (const char* const state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/') {
    return fs::path(state) / "vorlix";
  }
  const char* const home = std::getenv("HOME");
  if (isWritableHome(home)) return fs::path(home) / ".local/state/vorlix";
  return "/var/tmp/vorlix-" + std::to_string(geteuid());
}

// The folders on the way are the user's business like any that programs make there.
bool makeFolder(const fs::path& path, std::string& reason) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error) {
    reason = SystemError{error.value(), path.parent_path().string()}.text();
    return false;
  }
  if (mkdir(path.c_str(), kForTheUser) == 0) {
    // Not by mkdir(), whose mode the umask narrows.
    if (!isSuperUser() || chmod(path.c_str(), kForEveryone) == 0) return true;
  } else if (errno == EEXIST) {
    return true;
  }
  reason = SystemError{errno, path.string()}.text();
  return false;
}

}  // namespace

std::optional<std::string> makeStateFolder(std::string& reason) {
  const fs::path path = stateFolderPath();
  if (!makeFolder(path, reason)) return std::nullopt;
  if (auto folder = existingStateFolder()) return folder;
  reason = path.string() + " is not a folder of this user's alone";
  return std::nullopt;
}

std::optional<std::string> existingStateFolder() {
  const fs::path path = stateFolderPath();
  if (!isOwnFolder(path)) return std::nullopt;
  std::error_code error;
  const fs::path canonical = fs::canonical(path, error);
  if (error) return std::nullopt;
  return canonical.string();
}

}  // namespace vorlix
