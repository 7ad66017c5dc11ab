// SPDX-License-Identifier: Apache-2.0
#include "MirrorLookup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <utility>

#include "FatLayout.h"
#include "MirrorFolders.h"
#include "MirrorPlace.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

// Returns the state of a mirror that exists. A mirror that a killed process had set aside is found where it is now.
std::optional<MirrorState> standingState(const std::string& folder) {
  std::optional<MirrorState> state = savedState(folder);
  if (!state || state->leaving) return std::nullopt;
  const std::string leaving = folder + kMirrorLeaving;
  std::optional<FolderIdentity> found;
  if (examineFolder(leaving, found)) return state;
  if (isMadeFolder(*state, found)) {
    state->folder = leaving;
  } else if (!examineFolder(state->folder, found) && !found) {
    return std::nullopt;
  }
  return state;
}

// A mirror that is in place is directly in "volumes".
bool isSetAside(const MirrorState& state) {
  return fs::path(state.folder).parent_path().parent_path().filename() == ".mirrors";
}

// Returns when a mirror was made. If the file system does not record that, the modification time of the state is close:
// only a write-back writes the state again.
int64_t birthOf(const std::string& folder, const fs::path& state) {
  struct statx status = {};
  if (statx(AT_FDCWD, folder.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status) == 0 &&
      (status.stx_mask & STATX_BTIME) != 0) {
    return nanoseconds(status.stx_btime);
  }
  if (statx(AT_FDCWD, state.c_str(), AT_SYMLINK_NOFOLLOW, STATX_MTIME, &status) != 0) return 0;
  return nanoseconds(status.stx_mtime);
}

std::optional<uint64_t> identityOfVolume(const OpenedDevice& opened) {
  return readFatIdentity(FatSource(opened.descriptor.get(), opened.window));
}

MirroredVolumeIs lookAtVolume(const KnownMirror& mirror) {
  const std::string& device = mirror.state.device;
  const auto location = locateDevice(device.starts_with("/") ? device : "/dev/" + device);
  if (!location) return MirroredVolumeIs::gone;
  const std::optional<OpenedDevice> opened = openLocation(*location, O_RDONLY);
  const bool mayNotLook = !opened && (errno == EACCES || errno == EPERM);
  if (!opened && !mayNotLook) return MirroredVolumeIs::gone;
  if (!opened && !location->hasOwnNode()) return MirroredVolumeIs::there;  // the place of the slice is unknown
  if (mirrorKey(*location, opened ? opened->window : Extent{}) != mirror.key) return MirroredVolumeIs::replaced;
  if (opened && identityOfVolume(*opened) != mirror.state.identity) return MirroredVolumeIs::replaced;
  return MirroredVolumeIs::there;
}

}  // namespace

std::optional<std::string> mirrorKey(const DeviceLocation& location, Extent window) {
  struct statx status = {};
  const std::string& path = location.node;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return std::nullopt;
  const std::string offset = std::to_string(window.offset);
  if (S_ISBLK(status.stx_mode)) {
    return "device-" + std::to_string(status.stx_rdev_major) + "-" + std::to_string(status.stx_rdev_minor) + "-" +
           offset;
  }
  // The time of birth distinguishes a file from a later one with the same inode number.
  std::string birth = "0";
  if ((status.stx_mask & STATX_BTIME) != 0) {
    birth = std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
  }
  return "image-" + std::to_string(status.stx_dev_major) + "-" + std::to_string(status.stx_dev_minor) + "-" +
         std::to_string(status.stx_ino) + "-" + birth + "-" + offset;
}

std::vector<FoundMirror> findMirrors() {
  std::vector<FoundMirror> mirrors;
  const std::optional<std::string> volumes = existingVolumesFolder();
  if (!volumes) return mirrors;
  std::vector<std::pair<int64_t, FoundMirror>> found;
  for (const fs::path& folder : foldersOfMirrors(*volumes)) {
    std::optional<MirrorState> state = standingState(folder);
    if (!state) continue;
    const int64_t birth = birthOf(state->folder, folder / "state");
    FoundMirror mirror{{keyInName(folder), *std::move(state)}, MirroredVolumeIs::there};
    mirror.volume = lookAtVolume(mirror.mirror);
    found.emplace_back(birth, std::move(mirror));
  }
  std::sort(found.begin(), found.end(), [](const auto& left, const auto& right) {
    return std::tie(left.first, left.second.mirror.key) < std::tie(right.first, right.second.mirror.key);
  });
  for (auto& [birth, mirror] : found) mirrors.push_back(std::move(mirror));
  return mirrors;
}

std::vector<KnownMirror> allMirrors() {
  std::vector<KnownMirror> mirrors;
  for (FoundMirror& found : findMirrors()) {
    if (found.volume == MirroredVolumeIs::there) mirrors.push_back(std::move(found.mirror));
  }
  return mirrors;
}

std::optional<MirrorState> findMirror(const std::string& key, const std::optional<OpenedDevice>& opened) {
  const std::optional<std::string> volumes = existingVolumesFolder();
  if (!volumes) return std::nullopt;
  if (opened) {
    const auto identity = identityOfVolume(*opened);
    if (!identity) return std::nullopt;
    return standingState(folderOfMirror(*volumes, key, *identity));
  }
  for (const fs::path& folder : foldersOfMirrors(*volumes)) {
    if (keyInName(folder) != key) continue;
    if (auto state = standingState(folder)) return state;
  }
  return std::nullopt;
}

std::optional<MirrorState> findSettledMirror(const std::string& key, const std::optional<OpenedDevice>& opened) {
  std::optional<MirrorState> state = findMirror(key, opened);
  while (state && isSetAside(*state)) {
    std::optional<MirrorPlace> place;
    if (MirrorPlace::lock(key, state->identity, place)) return std::nullopt;
    place.reset();
    state = findMirror(key, opened);
  }
  return state;
}

std::optional<MirrorState> findMirrorAt(const std::string& folder) {
  std::error_code error;
  const fs::path wanted = fs::canonical(folder, error);
  if (error) return std::nullopt;
  for (KnownMirror& mirror : allMirrors()) {
    if (mirror.state.folder == wanted) return std::move(mirror.state);
  }
  return std::nullopt;
}

}  // namespace vorlix
