// SPDX-License-Identifier: Apache-2.0
#include "MirroredVolume.h"

#include <Vorlix/foundation/CaseFolding.h>
#include <pthread.h>
#include <signal.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <set>

#include "DeviceFacts.h"
#include "FolderUsers.h"
#include "MirrorCopy.h"
#include "MirrorFolders.h"
#include "MirrorLookup.h"
#include "MirrorPlace.h"
#include "MirrorTree.h"
#include "MountTable.h"
#include "WriteBack.h"

namespace vorlix {
namespace {

// Makes a write beyond the limit of a file's size (RLIMIT_FSIZE) fail in this thread instead of ending the process.
class FileSizeSignalHeld {
 public:
  FileSizeSignalHeld() {
    sigset_t pending;
    sigemptyset(&fileSize_);
    sigaddset(&fileSize_, SIGXFSZ);
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGXFSZ) == 1;
    pthread_sigmask(SIG_BLOCK, &fileSize_, &before_);
  }
  ~FileSizeSignalHeld() {
    const int reason = errno;
    const timespec atOnce = {0, 0};
    while (!wasPending_ && sigtimedwait(&fileSize_, nullptr, &atOnce) == SIGXFSZ) continue;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    errno = reason;
  }
  FileSizeSignalHeld(const FileSizeSignalHeld&) = delete;
  FileSizeSignalHeld& operator=(const FileSizeSignalHeld&) = delete;

 private:
  sigset_t fileSize_;
  sigset_t before_;
  bool wasPending_ = false;
};

Refusal checkSpace(const std::string& folder, uint64_t needed) {
  struct statvfs status = {};
  if (statvfs(folder.c_str(), &status) != 0) return dissenterFor(errno, folder);
  if (needed <= uint64_t{status.f_bavail} * status.f_frsize) return std::nullopt;
  return Dissenter{kDissentNoResources, "the files of the volume do not fit into " + folder};
}

Refusal fillMirror(const OpenedDevice& device, const std::string& folder, MirrorState& state) {
  OpenVolume volume;
  if (Refusal refusal = volume.read(device.descriptor.get(), device.window)) return refusal;
  if (Refusal refusal = checkSpace(folder, volume.volume.totalSize())) return refusal;
  if (Refusal refusal = copyVolumeTo(volume, folder)) return refusal;
  if (Refusal refusal = setMirrorModes(folder, state.readOnly)) return refusal;
  if (Refusal refusal = scanMirror(folder, state.baseline)) return refusal;
  if (state.baseline.size() != volume.volume.entries().size()) {
    return Dissenter{kDissentUnsupported, "files of the volume have the same name in " + folder};
  }
  FatVolume after;
  if (Refusal refusal = after.read(device.descriptor.get(), device.window)) return refusal;
  if (after.digest() != volume.volume.digest() || after.identity() != state.identity) {
    return Dissenter{kDissentBusy, "the volume was changed while its files were copied"};
  }
  state.digest = after.digest();
  return std::nullopt;
}

// A volume that is mounted inside the mirror has its own files, which do not belong to this volume.
Refusal checkNothingMountedIn(const std::string& folder) {
  for (const MountPoint& mount : mountTable()) {
    if (mount.path != folder && mount.path.rfind(folder + "/", 0) != 0) continue;
    return Dissenter{kDissentBusy, "another volume is mounted at " + mount.path};
  }
  return std::nullopt;
}

Refusal checkUnused(const std::string& folder) {
  if (const std::string user = userOfFolder(folder); !user.empty()) {
    return Dissenter{kDissentBusy, folder + " is in use by " + user};
  }
  return checkNothingMountedIn(folder);
}

// Renames the mirror first, so that no process begins to use it, then looks for processes that use it. If one does, or
// if `isAsItWas` returns false for the new folder, restores the mirror and refuses.
template <typename Check>
Refusal removeUnused(MirrorPlace& place, Check isAsItWas) {
  const std::string name = place.state()->folder;
  std::string aside;
  if (Refusal refusal = place.setAside(aside)) return refusal;
  Refusal refusal = checkUnused(aside);
  if (!refusal) refusal = checkNoFileOpen(aside);
  if (!refusal && !isAsItWas(aside)) {
    refusal = Dissenter{kDissentBusy, name + " was changed while it was unmounted"};
  }
  if (!refusal) refusal = place.remove();
  if (!refusal) return std::nullopt;
  const Refusal stuck = place.putBack();
  return stuck ? stuck : refusal;
}

// Folders of mirrors that may be written back without files, and the files that their volumes may have.
struct EmptyMirrors {
  std::mutex lock;
  std::map<std::string, std::set<std::string>> folders;
};

EmptyMirrors& emptyMirrors() {
  static EmptyMirrors mirrors;
  return mirrors;
}

bool mayBeEmpty(const MirrorState& state) {
  const std::lock_guard<std::mutex> guard(emptyMirrors().lock);
  const auto found = emptyMirrors().folders.find(state.folder);
  if (found == emptyMirrors().folders.end()) return false;
  return std::all_of(state.baseline.begin(), state.baseline.end(), [&](const auto& entry) {
    return entry.second.isFolder || found->second.contains(lowerCase(entry.first));
  });
}

bool holdsFiles(const MirrorTree& tree) {
  return std::any_of(tree.begin(), tree.end(), [](const auto& entry) { return !entry.second.isFolder; });
}

// A folder that was emptied by mistake, or replaced, looks like a request to delete all files of the volume. That could
// not be undone, so it is refused.
Refusal checkStillTheMirror(const MirrorState& state, const MirrorTree& tree) {
  const std::string discard = "\"vorlix unmount --discard " + state.device + "\"";
  if (!isFolderOf(state, state.folder)) {
    return Dissenter{kDissentError, state.folder +
                                        " is another folder than the one that the volume's files were copied to; put "
                                        "that one back, or throw this one away with " +
                                        discard};
  }
  if (holdsFiles(tree) || !holdsFiles(state.baseline) || mayBeEmpty(state)) return std::nullopt;
  return Dissenter{kDissentError, "all files are gone from " + state.folder +
                                      "; put one back, or leave the volume as it is with " + discard};
}

Dissenter notMounted(const std::string& name) {
  return {kDissentNotMounted, name + " is not mounted"};
}

}  // namespace

void allowEmptyMirror(const std::string& folder, const std::vector<std::string>& files) {
  const std::lock_guard<std::mutex> guard(emptyMirrors().lock);
  std::set<std::string>& known = emptyMirrors().folders[folder];
  for (const std::string& file : files) known.insert(lowerCase(file));
}

Refusal mountMirror(const DeviceLocation& location, const OpenedDevice& device, const std::string& name,
                    bool readOnly) {
  const FileSizeSignalHeld held;
  const std::optional<std::string> key = mirrorKey(location, device.window);
  if (!key) return dissenterFor(errno, location.node);
  const std::optional<std::string> bsdName = bsdNameOf(location);
  if (!bsdName) return dissenterFor(ENOENT, location.whole);
  const auto identity = readFatIdentity(FatSource(device.descriptor.get(), device.window));
  if (!identity) return dissenterFor(errno, location.node);
  std::optional<MirrorPlace> place;
  if (Refusal refusal = MirrorPlace::lock(*key, *identity, place)) return refusal;
  if (place->state()) return std::nullopt;  // another process has made it meanwhile
  MirrorState state;
  state.device = *bsdName;
  state.readOnly = readOnly;
  state.identity = *identity;
  std::string folder;
  if (Refusal refusal = place->make(folder)) return refusal;
  if (Refusal refusal = fillMirror(device, folder, state)) return refusal;
  return place->keep(name, std::move(state));
}

Refusal unmountMirror(const DeviceLocation& location, const std::string& key, uint64_t identity) {
  const FileSizeSignalHeld held;
  std::optional<MirrorPlace> place;
  if (Refusal refusal = MirrorPlace::lock(key, identity, place)) return refusal;
  if (!place->state()) return notMounted(location.whole);
  const std::string folder = place->state()->folder;
  if (Refusal refusal = checkUnused(folder)) return refusal;
  MirrorTree tree;
  if (Refusal refusal = scanMirror(folder, tree)) return refusal;
  if (Refusal refusal = checkStillTheMirror(*place->state(), tree)) return refusal;
  const bool isUntouched = !place->state()->written && tree == place->state()->baseline;
  if (!isUntouched) {
    if (Refusal refusal = writeBack(location, *place, tree)) return refusal;
  }
  return removeUnused(*place, [&](const std::string& aside) {
    MirrorTree now;
    return !scanMirror(aside, now) && now == tree;
  });
}

Refusal discardMirror(const std::string& key, uint64_t identity) {
  std::optional<MirrorPlace> place;
  if (Refusal refusal = MirrorPlace::lock(key, identity, place)) return refusal;
  if (!place->state()) return notMounted("the volume");
  if (Refusal refusal = checkUnused(place->state()->folder)) return refusal;
  return removeUnused(*place, [](const std::string&) { return true; });
}

}  // namespace vorlix
