// SPDX-License-Identifier: Apache-2.0
#include "MirrorPlace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <utility>

#include "MirrorFolders.h"
#include "MirrorTree.h"
#include "MountFolders.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUnfinished = "/state.new";
constexpr const char* kMaking = "/making";

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

// Returns the path of a folder that does not exist and that no mirror uses, with that name or a number added to it.
std::string freeFolder(const std::string& volumes, const std::string& name, const std::string& own) {
  std::set<std::string> claimed;
  for (const fs::path& folder : foldersOfMirrors(volumes)) {
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

}  // namespace

Refusal MirrorPlace::lock(const std::string& key, uint64_t identity, std::optional<MirrorPlace>& place) {
  std::string volumes;
  if (Refusal refusal = makeVolumesFolder(volumes)) return refusal;
  const std::string folder = folderOfMirror(volumes, key, identity);
  for (;;) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return dissenterFor(errno, folder);
    Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock && errno == ENOENT) continue;
    if (!lock) return dissenterFor(errno, folder);
    if (Refusal refusal = waitForLock(lock.get(), folder)) return refusal;
    if (!isStillThere(lock.get(), folder)) continue;  // the process that had the lock has removed the folder
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
  const std::string leaving = folder_ + kMirrorLeaving;
  std::string bytes;
  if (!readStateFile(folder_, bytes)) {
    return errno == ENOENT ? std::nullopt : Refusal(dissenterFor(errno, folder_ + kMirrorStateFile));
  }
  state_ = decodeMirrorState(bytes);
  if (!state_) return Dissenter{kDissentError, folder_ + kMirrorStateFile + " is damaged"};
  if (state_->leaving) return remove();
  std::optional<FolderIdentity> found;
  if (Refusal refusal = examineFolder(leaving, found)) return refusal;
  if (isMadeFolder(*state_, found)) return putBack();
  if (Refusal refusal = examineFolder(state_->folder, found)) return refusal;
  if (found) return std::nullopt;
  state_.reset();
  if (unlink((folder_ + kMirrorStateFile).c_str()) != 0) return dissenterFor(errno, folder_);
  return std::nullopt;
}

Refusal MirrorPlace::save(const MirrorState& state) {
  const std::string path = folder_ + kMirrorStateFile;
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
  // The lock gives names to one mirror at a time.
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
    unlink((folder_ + kMirrorStateFile).c_str());
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
  folder = folder_ + kMirrorLeaving;
  // A read-only folder cannot be moved.
  if (state_->readOnly) chmod(state_->folder.c_str(), 0700);
  if (rename(state_->folder.c_str(), folder.c_str()) != 0) return dissenterFor(errno, state_->folder);
  return std::nullopt;
}

Refusal MirrorPlace::putBack() {
  const std::string leaving = folder_ + kMirrorLeaving;
  if (rename(leaving.c_str(), state_->folder.c_str()) != 0) {
    // Another item has that name now.
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
      static_cast<void>(save(before));  // the new state may have been written, and only its sync have failed
      state_ = before;
      return refusal;
    }
  }
  // The volume is no longer mounted. The next call removes what cannot be removed now.
  if (removeMirrorTree(folder_ + kMirrorLeaving)) return std::nullopt;
  if (unlink((folder_ + kMirrorStateFile).c_str()) == 0) state_.reset();
  return std::nullopt;
}

}  // namespace vorlix
