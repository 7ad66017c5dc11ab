// SPDX-License-Identifier: Apache-2.0
#include "MirrorPlace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include "platform/changes/StateFolder.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <tuple>
#include <utility>

#include "FatLayout.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kVolumes = "/volumes";
constexpr const char* kMirrors = "/.mirrors";
constexpr const char* kState = "/state";
constexpr const char* kUnfinished = "/state.new";
constexpr const char* kMaking = "/making";
constexpr const char* kLeaving = "/leaving";
constexpr int kMostOfOneName = 1000;

// The key of a place, and what tells the volume there from a later one.
std::string folderName(const std::string& key, uint64_t identity) {
  char digits[20];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(identity));
  return key + "-" + digits;
}

std::optional<std::string> existingVolumes() {
  const std::optional<std::string> state = existingStateFolder();
  return state ? std::optional(*state + kVolumes) : std::nullopt;
}

Refusal makeVolumes(std::string& volumes) {
  std::string reason;
  const std::optional<std::string> state = makeStateFolder(reason);
  if (!state) return Dissenter{kDissentNotPermitted, reason};
  volumes = *state + kVolumes;
  for (const std::string& folder : {volumes, volumes + kMirrors}) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return dissenterFor(errno, folder);
  }
  return std::nullopt;
}

int64_t nanoseconds(const struct statx_timestamp& time) {
  return int64_t{time.tv_sec} * 1000000000 + int64_t{time.tv_nsec};
}

// The folder of that path; none if it is certain that there is none. A path that cannot be examined is refused: it may
// have a folder, and a mirror that is taken for missing loses its state.
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

// Numbers are given to new folders again, and some stacked file systems give a folder another one later.
bool isMade(const MirrorState& state, const std::optional<FolderIdentity>& found) {
  if (!found) return false;
  if (found->birth != 0 && state.made.birth != 0) return found->birth == state.made.birth;
  return found->inode == state.made.inode;
}

bool readWhole(const std::string& path, std::string& bytes) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

// What is saved in a mirror's folder, whether the mirror is there or not.
std::optional<MirrorState> savedState(const std::string& folder) {
  std::string bytes;
  return readWhole(folder + kState, bytes) ? decodeMirrorState(bytes) : std::nullopt;
}

// The state of a mirror that is there. One that a process has set aside, and then was ended, is found where it is.
std::optional<MirrorState> standingState(const std::string& folder) {
  std::optional<MirrorState> state = savedState(folder);
  if (!state || state->leaving) return std::nullopt;
  const std::string leaving = folder + kLeaving;
  std::optional<FolderIdentity> found;
  if (examineFolder(leaving, found)) return state;
  if (isMade(*state, found)) {
    state->folder = leaving;
  } else if (!examineFolder(state->folder, found) && !found) {
    return std::nullopt;
  }
  return state;
}

// Mirrors stand in `volumes` itself.
bool isSetAside(const MirrorState& state) {
  return fs::path(state.folder).parent_path().parent_path().filename() == ".mirrors";
}

bool syncFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && fsync(opened.get()) == 0;
}

bool writeWhole(int descriptor, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    done += static_cast<size_t>(put);
  }
  return fsync(descriptor) == 0;
}

Refusal waitForLock(int descriptor, const std::string& path) {
  while (flock(descriptor, LOCK_EX) != 0) {
    if (errno != EINTR) return dissenterFor(errno, path);
  }
  return std::nullopt;
}

bool isStillThere(int descriptor, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(descriptor, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
         opened.st_dev == named.st_dev;
}

std::vector<fs::path> mirrorFolders(const std::string& volumes) {
  std::vector<fs::path> folders;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(volumes + kMirrors, error)) {
    folders.push_back(entry.path());
  }
  return folders;
}

// A folder of that name which is not there and which no mirror claims.
std::string freeFolder(const std::string& volumes, const std::string& name, const std::string& own) {
  std::set<std::string> claimed;
  for (const fs::path& folder : mirrorFolders(volumes)) {
    if (folder == own) continue;
    if (const auto state = savedState(folder)) claimed.insert(state->folder);
  }
  const std::string wanted = volumes + "/" + name;
  std::string candidate = wanted;
  struct stat status = {};
  for (int number = 1; claimed.count(candidate) != 0 || lstat(candidate.c_str(), &status) == 0; ++number) {
    if (number > kMostOfOneName) return "";
    candidate = wanted + "-" + std::to_string(number);
  }
  return candidate;
}

// When a mirror was made. Where its file system does not tell, the time at which the state was last written is near
// that: it is written again only by a write-back.
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
  if (!opened && !location->hasOwnNode()) return MirroredVolumeIs::there;  // the slice's place is not known
  if (mirrorKey(*location, opened ? opened->window : Extent{}) != mirror.key) return MirroredVolumeIs::replaced;
  if (opened && identityOfVolume(*opened) != mirror.state.identity) return MirroredVolumeIs::replaced;
  return MirroredVolumeIs::there;
}

}  // namespace

// ----------------------------------------------------------------------------------------------------------- look-ups

std::optional<std::string> mirrorKey(const DeviceLocation& location, Extent window) {
  struct statx status = {};
  const std::string& path = location.node;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return std::nullopt;
  const std::string offset = std::to_string(window.offset);
  if (S_ISBLK(status.stx_mode)) {
    return "device-" + std::to_string(status.stx_rdev_major) + "-" + std::to_string(status.stx_rdev_minor) + "-" +
           offset;
  }
  // The time of birth tells a file from a later one that was given the same number.
  std::string birth = "0";
  if ((status.stx_mask & STATX_BTIME) != 0) {
    birth = std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
  }
  return "image-" + std::to_string(status.stx_dev_major) + "-" + std::to_string(status.stx_dev_minor) + "-" +
         std::to_string(status.stx_ino) + "-" + birth + "-" + offset;
}

bool isFolderOf(const MirrorState& state, const std::string& path) {
  std::optional<FolderIdentity> found;
  return !examineFolder(path, found) && isMade(state, found);
}

std::vector<FoundMirror> findMirrors() {
  std::vector<FoundMirror> mirrors;
  const std::optional<std::string> volumes = existingVolumes();
  if (!volumes) return mirrors;
  std::vector<std::pair<int64_t, FoundMirror>> found;
  for (const fs::path& folder : mirrorFolders(*volumes)) {
    std::optional<MirrorState> state = standingState(folder);
    if (!state) continue;
    const std::string name = folder.filename().string();
    const int64_t birth = birthOf(state->folder, folder / "state");
    FoundMirror mirror{{name.substr(0, name.rfind('-')), *std::move(state)}, MirroredVolumeIs::there};
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
  const std::optional<std::string> volumes = existingVolumes();
  if (!volumes) return std::nullopt;
  if (opened) {
    const auto identity = identityOfVolume(*opened);
    if (!identity) return std::nullopt;
    return standingState(*volumes + kMirrors + "/" + folderName(key, *identity));
  }
  for (const fs::path& folder : mirrorFolders(*volumes)) {
    const std::string name = folder.filename().string();
    if (name.substr(0, name.rfind('-')) != key) continue;
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

// -------------------------------------------------------------------------------------------------------- locked work

Refusal MirrorPlace::lock(const std::string& key, uint64_t identity, std::optional<MirrorPlace>& place) {
  std::string volumes;
  if (Refusal refusal = makeVolumes(volumes)) return refusal;
  const std::string folder = volumes + kMirrors + "/" + folderName(key, identity);
  for (;;) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return dissenterFor(errno, folder);
    Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock && errno == ENOENT) continue;
    if (!lock) return dissenterFor(errno, folder);
    if (Refusal refusal = waitForLock(lock.get(), folder)) return refusal;
    if (!isStillThere(lock.get(), folder)) continue;  // whoever had it has removed it
    place = MirrorPlace(folder, std::move(lock));
    return place->recover();
  }
}

MirrorPlace::~MirrorPlace() {
  if (!lock_) return;
  static_cast<void>(removeMirrorTree(inside("making")));
  unlink(copyPath().c_str());
  if (!state_) rmdir(folder_.c_str());
}

Refusal MirrorPlace::recover() {
  static_cast<void>(removeMirrorTree(folder_ + kMaking));
  unlink(copyPath().c_str());
  unlink((folder_ + kUnfinished).c_str());
  const std::string leaving = folder_ + kLeaving;
  std::string bytes;
  if (!readWhole(folder_ + kState, bytes)) {
    return errno == ENOENT ? std::nullopt : Refusal(dissenterFor(errno, folder_ + kState));
  }
  state_ = decodeMirrorState(bytes);
  if (!state_) return Dissenter{kDissentError, folder_ + kState + " is damaged"};
  if (state_->leaving) return remove();
  std::optional<FolderIdentity> found;
  if (Refusal refusal = examineFolder(leaving, found)) return refusal;
  if (isMade(*state_, found)) return putBack();
  if (Refusal refusal = examineFolder(state_->folder, found)) return refusal;
  if (found) return std::nullopt;
  state_.reset();
  if (unlink((folder_ + kState).c_str()) != 0) return dissenterFor(errno, folder_);
  return std::nullopt;
}

Refusal MirrorPlace::save(const MirrorState& state) {
  const std::string path = folder_ + kState;
  const std::string beside = folder_ + kUnfinished;
  const Descriptor file(
      aboveStandardStreams(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600)));
  const bool isSaved = file && writeWhole(file.get(), encodeMirrorState(state)) &&
                       rename(beside.c_str(), path.c_str()) == 0 && syncFolder(folder_);
  if (!isSaved) {
    const int reason = errno;
    unlink(beside.c_str());
    return dissenterFor(reason, path);
  }
  state_ = state;
  return std::nullopt;
}

Refusal MirrorPlace::make(std::string& folder) {
  folder = folder_ + kMaking;
  if (mkdir(folder.c_str(), 0700) != 0) return dissenterFor(errno, folder);
  return std::nullopt;
}

Refusal MirrorPlace::keep(const std::string& name, MirrorState state) {
  const std::string volumes = fs::path(folder_).parent_path().parent_path().string();
  // Names are given to one mirror after the other.
  const Descriptor lock(open(volumes.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) return dissenterFor(errno, volumes);
  if (Refusal refusal = waitForLock(lock.get(), volumes)) return refusal;
  std::optional<FolderIdentity> made;
  if (Refusal refusal = examineFolder(folder_ + kMaking, made)) return refusal;
  if (!made) return dissenterFor(ENOENT, folder_ + kMaking);
  state.made = *made;
  state.folder = freeFolder(volumes, name, folder_);
  if (state.folder.empty()) return dissenterFor(EEXIST, volumes + "/" + name);
  if (Refusal refusal = save(state)) return refusal;
  const auto giveUp = [&] {
    const Dissenter refusal = dissenterFor(errno, state.folder);
    unlink((folder_ + kState).c_str());
    state_.reset();
    return refusal;
  };
  if (rename((folder_ + kMaking).c_str(), state.folder.c_str()) != 0) return giveUp();
  if (syncFolder(volumes) && (!state.readOnly || chmod(state.folder.c_str(), 0500) == 0)) return std::nullopt;
  Refusal refusal = giveUp();
  static_cast<void>(removeMirrorTree(state.folder));
  return refusal;
}

Refusal MirrorPlace::setAside(std::string& folder) {
  folder = folder_ + kLeaving;
  // A folder that cannot be written cannot be moved either.
  if (state_->readOnly) chmod(state_->folder.c_str(), 0700);
  if (rename(state_->folder.c_str(), folder.c_str()) != 0) return dissenterFor(errno, state_->folder);
  return std::nullopt;
}

Refusal MirrorPlace::putBack() {
  const std::string leaving = folder_ + kLeaving;
  if (rename(leaving.c_str(), state_->folder.c_str()) != 0) {
    // Somebody has made something of that name.
    const fs::path old = state_->folder;
    MirrorState state = *state_;
    state.folder = freeFolder(old.parent_path().string(), old.filename().string(), folder_);
    if (state.folder.empty()) return dissenterFor(EEXIST, old.string());
    if (Refusal refusal = save(state)) return refusal;
    if (rename(leaving.c_str(), state.folder.c_str()) != 0) return dissenterFor(errno, state.folder);
  }
  if (state_->readOnly) chmod(state_->folder.c_str(), 0500);
  return std::nullopt;
}

Refusal MirrorPlace::remove() {
  if (!state_->leaving) {
    const MirrorState before = *state_;
    MirrorState state = before;
    state.leaving = true;
    if (Refusal refusal = save(state)) {
      static_cast<void>(save(before));  // the new one may be there, and only its sync have failed
      state_ = before;
      return refusal;
    }
  }
  // The volume is no longer mounted; what cannot be removed now goes with the next call.
  if (removeMirrorTree(folder_ + kLeaving)) return std::nullopt;
  if (unlink((folder_ + kState).c_str()) == 0) state_.reset();
  return std::nullopt;
}

}  // namespace vorlix
