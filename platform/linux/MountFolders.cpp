// SPDX-License-Identifier: Apache-2.0
#include "MountFolders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <Vorlix/foundation/Utf8.h>

namespace vorlix {
namespace {

constexpr size_t kLongestName = 128;
constexpr mode_t kForEveryone = 0755;
constexpr mode_t kForTheUser = 0700;
constexpr const char* kPlace = "/run/vorlix";

bool isOwnFolder(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & 0022) == 0;
}

Refusal makePlace() {
  if (mkdir(kPlace, kForTheUser) == 0) {
    // With chmod(), because the umask restricts the mode of mkdir().
    if (chmod(kPlace, kForEveryone) != 0) return dissenterFor(errno, kPlace);
  } else if (errno != EEXIST) {
    return dissenterFor(errno, kPlace);
  }
  if (isOwnFolder(kPlace)) return std::nullopt;
  return Dissenter{kDissentNotPermitted, std::string(kPlace) + " is not a folder of this user's alone"};
}

}  // namespace

std::string safeFolderName(const std::string& name) {
  std::string safe;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    safe += byte < 0x20 || byte == 0x7F || character == '/' ? '_' : character;
  }
  if (safe.size() > kLongestName) safe.resize(kLongestName);
  while (!safe.empty() && !isUtf8(safe)) safe.pop_back();  // the rest of a truncated character
  safe.erase(safe.find_last_not_of(' ') + 1);
  if (!safe.empty() && safe.front() == '.') safe.front() = '_';
  return safe;
}

Refusal makeMountFolder(const std::string& name, mode_t mode, std::string& path) {
  if (Refusal refusal = makePlace()) return refusal;
  const std::string wanted = std::string(kPlace) + "/" + name;
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
  const std::string place = std::string(kPlace) + "/";
  if (path.rfind('/') + 1 == place.size() && path.rfind(place, 0) == 0) rmdir(path.c_str());
}

}  // namespace vorlix
