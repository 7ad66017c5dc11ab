// SPDX-License-Identifier: Apache-2.0
#include "MirrorFolders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>

#include "platform/changes/StateFolder.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kVolumes = "/volumes";
constexpr const char* kMirrors = "/.mirrors";

}  // namespace

std::optional<std::string> existingVolumesFolder() {
  const std::optional<std::string> state = existingStateFolder();
  return state ? std::optional(*state + kVolumes) : std::nullopt;
}

Refusal makeVolumesFolder(std::string& volumes) {
  std::string reason;
  const std::optional<std::string> state = makeStateFolder(reason);
  if (!state) return Dissenter{kDissentNotPermitted, reason};
  volumes = *state + kVolumes;
  for (const std::string& folder : {volumes, volumes + kMirrors}) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return dissenterFor(errno, folder);
  }
  return std::nullopt;
}

std::string folderOfMirror(const std::string& volumes, const std::string& key, uint64_t identity) {
  char digits[20];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(identity));
  return volumes + kMirrors + "/" + key + "-" + digits;
}

std::vector<fs::path> foldersOfMirrors(const std::string& volumes) {
  std::vector<fs::path> folders;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(volumes + kMirrors, error)) {
    folders.push_back(entry.path());
  }
  return folders;
}

std::string keyInName(const fs::path& folder) {
  const std::string name = folder.filename().string();
  return name.substr(0, name.rfind('-'));
}

Refusal examineFolder(const std::string& path, std::optional<FolderIdentity>& identity) {
  identity.reset();
  struct statx status = {};
  const unsigned wanted = STATX_TYPE | STATX_INO | STATX_BTIME;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, wanted, &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    return dissenterFor(errno, path);
  }
  if (!S_ISDIR(status.stx_mode)) return std::nullopt;
  const bool isBirthKnown = (status.stx_mask & STATX_BTIME) != 0;
  identity = FolderIdentity{status.stx_ino, isBirthKnown ? nanoseconds(status.stx_btime) : 0};
  return std::nullopt;
}

// The time of birth counts first: inode numbers are used again for new folders, and some stacked file systems give a
// folder another number later.
bool isMadeFolder(const MirrorState& state, const std::optional<FolderIdentity>& found) {
  if (!found) return false;
  if (found->birth != 0 && state.made.birth != 0) return found->birth == state.made.birth;
  return found->inode == state.made.inode;
}

bool isFolderOf(const MirrorState& state, const std::string& path) {
  std::optional<FolderIdentity> found;
  return !examineFolder(path, found) && isMadeFolder(state, found);
}

bool readStateFile(const std::string& folder, std::string& bytes) {
  errno = 0;
  std::ifstream file(folder + kMirrorStateFile, std::ios::binary);
  if (!file) return false;
  bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

std::optional<MirrorState> savedState(const std::string& folder) {
  std::string bytes;
  return readStateFile(folder, bytes) ? decodeMirrorState(bytes) : std::nullopt;
}

int64_t nanoseconds(const struct statx_timestamp& time) {
  return int64_t{time.tv_sec} * 1000000000 + int64_t{time.tv_nsec};
}

}  // namespace vorlix
