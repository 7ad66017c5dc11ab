// SPDX-License-Identifier: Apache-2.0
#include "MirroredVolume.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <set>

#include "DeviceFacts.h"
#include "DiskLock.h"
#include "FatLayout.h"
#include "MirrorChanges.h"
#include "MirrorTree.h"
#include "MountFolders.h"
#include "MountTable.h"
#include "Mtools.h"

namespace vorlix {
namespace {

// A folder on its way to becoming a mirror; removed again unless it got there.
class NewMirror {
 public:
  explicit NewMirror(std::string folder) : folder_(std::move(folder)) {}
  ~NewMirror() {
    if (!folder_.empty()) static_cast<void>(removeMirrorTree(folder_));
  }
  NewMirror(const NewMirror&) = delete;
  NewMirror& operator=(const NewMirror&) = delete;
  void keep() { folder_.clear(); }

 private:
  std::string folder_;
};

Refusal checkSpace(const std::string& folder, uint64_t needed) {
  struct statvfs status = {};
  if (statvfs(folder.c_str(), &status) != 0) return dissenterFor(errno, folder);
  if (needed <= uint64_t{status.f_bavail} * status.f_frsize) return std::nullopt;
  return Dissenter{kDissentNoResources, "the files of the volume do not fit into " + folder};
}

// Names that come out of mtools the same, or not at all, would be lost from the volume at the first write-back.
Refusal checkComplete(const MirrorTree& tree, const Mtools& volume) {
  std::vector<Mtools::Entry> listed;
  if (Refusal refusal = volume.list(listed)) return refusal;
  std::set<std::string> seen;
  for (const Mtools::Entry& entry : listed) {
    const auto own = tree.find(entry.path);
    const bool isThere = own != tree.end() && own->second.isFolder == entry.isFolder;
    if (isThere && seen.insert(entry.path).second) continue;
    return Dissenter{kDissentUnsupported, "mtools cannot copy " + entry.path + " under its name"};
  }
  if (seen.size() == tree.size()) return std::nullopt;
  return Dissenter{kDissentError, "mtools copied other files than it listed"};
}

Refusal fillMirror(const OpenedDevice& device, MirrorState& state) {
  const Mtools volume(device.descriptor.get(), device.window.offset);
  FatOutline before;
  if (Refusal refusal = readFatOutline(device.descriptor.get(), device.window, before)) return refusal;
  if (Refusal refusal = checkSpace(state.folder, before.totalSize)) return refusal;
  if (Refusal refusal = volume.copyAllTo(state.folder)) return refusal;
  if (Refusal refusal = setMirrorModes(state.folder, state.readOnly)) return refusal;
  if (Refusal refusal = scanMirror(state.folder, state.baseline)) return refusal;
  if (Refusal refusal = checkComplete(state.baseline, volume)) return refusal;
  FatOutline after;
  if (Refusal refusal = readFatOutline(device.descriptor.get(), device.window, after)) return refusal;
  if (after.digest != before.digest) {
    return Dissenter{kDissentBusy, "the volume was changed while its files were copied"};
  }
  state.identity = after.identity;
  state.digest = after.digest;
  return std::nullopt;
}

Refusal checkUnchanged(const OpenedDevice& device, const MirrorState& state) {
  FatOutline now;
  if (Refusal refusal = readFatOutline(device.descriptor.get(), device.window, now)) return refusal;
  if (now.identity != state.identity) {
    return Dissenter{kDissentError, "this is another volume than the one that was mounted; what was changed in " +
                                        state.folder + " was not written back"};
  }
  if (!state.digest || now.digest == *state.digest) return std::nullopt;
  return Dissenter{kDissentError, "someone else changed the volume since it was mounted; what was changed in " +
                                      state.folder + " was not written back"};
}

// Finds the changes and writes them back, with the state telling at every moment what to do after a failure.
class WriteBack {
 public:
  WriteBack(const MirrorStates& states, const std::string& key, MirrorState& state, const DeviceLocation& location)
      : states_(states), key_(key), state_(state), location_(location) {}

  Refusal run(const MirrorTree& tree) {
    std::optional<OpenedDevice> device = openLocation(location_, O_RDONLY);
    if (!device) return dissenterFor(errno, location_.node);
    if (Refusal refusal = checkUnchanged(*device, state_)) return refusal;
    MirrorChanges changes;
    const Mtools reader(device->descriptor.get(), device->window.offset);
    if (Refusal refusal = findChanges(state_, tree, reader, changes)) return refusal;
    if (changes.empty()) return std::nullopt;
    if (state_.readOnly) {
      return Dissenter{kDissentNotWritable,
                       location_.whole + " cannot be written; the changes stay in " + state_.folder};
    }
    return writeChanges(changes, tree);
  }

 private:
  Refusal writeChanges(const MirrorChanges& changes, const MirrorTree& tree) {
    // Tells whether somebody works on the disk. It is not held on to: mtools may lock the disk itself.
    if (!lockWholeDisk(location_.whole, DeviceLock::exclusive)) return dissenterFor(errno, location_.whole);
    std::optional<OpenedDevice> device = openLocation(location_, O_RDWR);
    if (!device) return dissenterFor(errno, location_.node);
    MirrorState writing = state_;
    writing.digest.reset();
    writing.baseline.clear();
    writing.compareAll = true;
    if (Refusal refusal = states_.save(key_, writing)) return refusal;
    state_ = writing;
    Refusal refusal = writeTo(*device, changes, tree);
    FatOutline now;
    if (!readFatOutline(device->descriptor.get(), device->window, now)) state_.digest = now.digest;
    if (!refusal) {
      state_.baseline = tree;
      state_.compareAll = false;
    }
    static_cast<void>(states_.save(key_, state_));  // with what was saved before, a later attempt only checks less
    if (refusal) refusal->text += "; the changes stay in " + state_.folder;
    return refusal;
  }

  Refusal writeTo(const OpenedDevice& device, const MirrorChanges& changes, const MirrorTree& tree) {
    const Mtools volume(device.descriptor.get(), device.window.offset);
    const Refusal refusal = applyChanges(changes, state_, tree, volume);
    if (fsync(device.descriptor.get()) != 0 && !refusal) return dissenterFor(errno, location_.node);
    return refusal;
  }

  const MirrorStates& states_;
  const std::string& key_;
  MirrorState& state_;
  const DeviceLocation& location_;
};

// A volume that somebody mounted there has files of its own, which are none of this one's.
Refusal checkNothingMountedIn(const std::string& folder) {
  for (const MountPoint& mount : mountTable()) {
    if (mount.path != folder && mount.path.rfind(folder + "/", 0) != 0) continue;
    return Dissenter{kDissentBusy, "another volume is mounted at " + mount.path};
  }
  return std::nullopt;
}

bool isLeftAlone(const std::string& folder, const MirrorTree& tree) {
  MirrorTree now;
  return userOfFolder(folder).empty() && !checkNothingMountedIn(folder) && !scanMirror(folder, now) && now == tree;
}

}  // namespace

Refusal mountMirror(const DeviceLocation& location, const OpenedDevice& device, const std::string& name,
                    bool readOnly) {
  const std::optional<std::string> key = mirrorKey(location, device.window);
  if (!key) return dissenterFor(errno, location.node);
  std::optional<MirrorStates> states;
  if (Refusal refusal = MirrorStates::lock(states)) return refusal;
  if (states->load(*key)) return std::nullopt;  // made by someone else in the meantime
  MirrorState state;
  const std::optional<std::string> bsdName = bsdNameOf(location);
  if (!bsdName) return dissenterFor(ENOENT, location.whole);
  state.device = *bsdName;
  state.readOnly = readOnly;
  if (Refusal refusal = makeMountFolder(name, 0700, state.folder)) return refusal;
  NewMirror mirror(state.folder);
  if (Refusal refusal = fillMirror(device, state)) return refusal;
  if (Refusal refusal = states->save(*key, state)) return refusal;
  mirror.keep();
  return std::nullopt;
}

Refusal unmountMirror(const DeviceLocation& location, const std::string& key) {
  std::optional<MirrorStates> states;
  if (Refusal refusal = MirrorStates::lock(states)) return refusal;
  std::optional<MirrorState> state = states->load(key);
  if (!state) return Dissenter{kDissentNotMounted, location.whole + " is not mounted"};
  if (const std::string user = userOfFolder(state->folder); !user.empty()) {
    return Dissenter{kDissentBusy, state->folder + " is in use by " + user};
  }
  if (Refusal refusal = checkNothingMountedIn(state->folder)) return refusal;
  MirrorTree tree;
  if (Refusal refusal = scanMirror(state->folder, tree)) return refusal;
  const bool isUntouched = !state->compareAll && tree == state->baseline;
  if (!isUntouched) {
    if (Refusal refusal = WriteBack(*states, key, *state, location).run(tree)) return refusal;
  }
  // Under another name nobody begins to use it any more, and whoever does so already is seen.
  const std::string aside = state->folder + kAside;
  if (rename(state->folder.c_str(), aside.c_str()) != 0) return dissenterFor(errno, state->folder);
  if (!isLeftAlone(aside, tree)) {
    if (rename(aside.c_str(), state->folder.c_str()) != 0) return dissenterFor(errno, aside);
    return Dissenter{kDissentBusy, state->folder + " was changed while it was unmounted"};
  }
  states->remove(key);
  // The volume is whole and no longer mounted; what could not be removed of its mirror is a copy in a private folder.
  static_cast<void>(removeMirrorTree(aside));
  return std::nullopt;
}

}  // namespace vorlix
