// SPDX-License-Identifier: Apache-2.0
#include "MountFolders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "VolumeProbe.h"

namespace vorlix {
namespace {

constexpr size_t kLongestName = 128;
constexpr int kMostOfOneName = 1000;
constexpr mode_t kForEveryone = 0755;
constexpr mode_t kForTheUser = 0700;

bool isOwnFolder(const std::string& path, mode_t forbidden) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & forbidden) == 0;
}

// Where this user's folder stands. A folder under /tmp has a name that others can know and take before; the check of
// its owner and mode refuses theirs.
std::string runtimeFolderPath() {
  if (geteuid() == 0) return "/run/vorlix";
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime == '/' && isOwnFolder(runtime, 0077)) return std::string(runtime) + "/vorlix";
  return "/tmp/vorlix-" + std::to_string(geteuid());
}

}  // namespace

Refusal makeRuntimeFolder(std::string& folder) {
  const std::string path = runtimeFolderPath();
  if (mkdir(path.c_str(), kForTheUser) == 0) {
    // Not by mkdir(), whose mode the umask narrows.
    if (geteuid() == 0 && chmod(path.c_str(), kForEveryone) != 0) return dissenterFor(errno, path);
  } else if (errno != EEXIST) {
    return dissenterFor(errno, path);
  }
  const std::optional<std::string> made = existingRuntimeFolder();
  if (!made) return Dissenter{kDissentNotPermitted, path + " is not a folder of this user's alone"};
  folder = *made;
  return std::nullopt;
}

std::optional<std::string> existingRuntimeFolder() {
  const std::string path = runtimeFolderPath();
  if (!isOwnFolder(path, geteuid() == 0 ? 0022 : 0077)) return std::nullopt;
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::canonical(path, error);
  if (error) return std::nullopt;
  return canonical.string();
}

std::string safeFolderName(const std::string& name) {
  std::string safe;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    safe += byte < 0x20 || byte == 0x7F || character == '/' ? '_' : character;
  }
  if (safe.size() > kLongestName) safe.resize(kLongestName);
  while (!safe.empty() && validText(safe) != safe) safe.pop_back();  // a character that was cut in two
  safe.erase(safe.find_last_not_of(' ') + 1);
  if (!safe.empty() && safe.front() == '.') safe.front() = '_';
  return safe;
}

Refusal makeMountFolder(const std::string& name, mode_t mode, std::string& path) {
  std::string folder;
  if (Refusal refusal = makeRuntimeFolder(folder)) return refusal;
  const std::string wanted = folder + "/" + name;
  std::string candidate = wanted;
  for (int number = 1; mkdir(candidate.c_str(), kForTheUser) != 0; ++number) {
    if (errno != EEXIST || number > kMostOfOneName) return dissenterFor(errno, candidate);
    candidate = wanted + "-" + std::to_string(number);
  }
  if (chmod(candidate.c_str(), mode) != 0) {
    const int reason = errno;
    rmdir(candidate.c_str());
    return dissenterFor(reason, candidate);
  }
  path = candidate;
  return std::nullopt;
}

void removeMountFolder(const std::string& path) {
  const std::optional<std::string> folder = existingRuntimeFolder();
  if (folder && path.rfind('/') == folder->size() && path.rfind(*folder, 0) == 0) rmdir(path.c_str());
}

}  // namespace vorlix
