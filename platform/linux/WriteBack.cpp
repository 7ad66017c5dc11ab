// SPDX-License-Identifier: Apache-2.0
#include "WriteBack.h"

#include <Vorlix/platform/DiskChange.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "MirrorChanges.h"
#include "MirrorCopy.h"
#include "Mtools.h"
#include "VolumeCopy.h"
#include "VolumeDevice.h"

namespace vorlix {
namespace {

class WriteBack {
 public:
  WriteBack(const DeviceLocation& location, MirrorPlace& place, const MirrorTree& tree)
      : location_(location), place_(place), state_(*place.state()), tree_(tree) {}

  Refusal run() {
    Refusal refusal = write();
    if (refusal) refusal->text += "; the changes stay in " + state_.folder;
    return refusal;
  }

 private:
  Refusal write() {
    if (Refusal refusal = device_.open(location_, !state_.readOnly)) return refusal;
    if (Refusal refusal = device_.settle()) return refusal;
    if (Refusal refusal = medium_.read(device_.descriptor(), device_.window())) return refusal;
    if (Refusal refusal = checkUnchanged()) return refusal;
    MirrorChanges changes;
    if (Refusal refusal = findChanges(state_.baseline, tree_, state_.folder, medium_, changes)) return refusal;
    if (changes.empty()) return std::nullopt;
    if (state_.readOnly) return Dissenter{kDissentNotWritable, location_.whole + " cannot be written"};
    Room room = Room::oneAfterTheOther;
    if (Refusal refusal = checkRoom(changes, tree_, medium_.volume, room)) return refusal;
    Descriptor file;
    Refusal refusal = changeCopy(changes, room, file);
    // A folder that grew may have used the room that seemed to be enough.
    if (refusal && refusal->status == kDissentNoResources && room == Room::besideEachOther) {
      refusal = changeCopy(changes, Room::oneAfterTheOther, file);
    }
    if (refusal) return refusal;
    OpenVolume copy;
    if (Refusal damaged = copy.read(file.get(), {0, medium_.volume.layout().totalSize})) {
      damaged->text = "the copy of the volume that was to be written: " + damaged->text;
      return damaged;
    }
    if (copy.volume.identity() != state_.identity || copy.volume.lostClusters() > medium_.volume.lostClusters()) {
      return Dissenter{kDissentError, "mtools damaged the copy of the volume that was to be written"};
    }
    if (Refusal differs = checkCopy(copy, tree_, state_.folder)) return differs;
    if (Refusal changed = checkMirrorUnchanged()) return changed;
    return bringToMedium(copy);
  }

  // Checks that the volume is as it was when the mirror was the same or, after another process's write-back, as that
  // write-back was to make it.
  Refusal checkUnchanged() {
    const uint64_t digest = medium_.volume.digest();
    if (medium_.volume.identity() != state_.identity) {
      return Dissenter{kDissentError, "this is another volume than the one that was mounted"};
    }
    if (digest == state_.digest) return std::nullopt;
    if (!state_.written || digest != state_.written->digest) {
      return Dissenter{kDissentError, "someone else changed the volume since it was mounted"};
    }
    return setWritten();
  }

  Refusal setWritten() {
    state_.digest = state_.written->digest;
    state_.baseline = std::move(state_.written->tree);
    state_.written.reset();
    return place_.save(state_);
  }

  Refusal changeCopy(const MirrorChanges& changes, Room room, Descriptor& file) {
    if (Refusal refusal = copyUsedParts(medium_, place_.copyPath(), file)) return refusal;
    return applyChanges(changes, tree_, state_.folder, room, Mtools(file.get()));
  }

  Refusal checkMirrorUnchanged() {
    MirrorTree now;
    if (Refusal refusal = scanMirror(state_.folder, now)) return refusal;
    if (now == tree_) return std::nullopt;
    return Dissenter{kDissentBusy, state_.folder + " was changed while it was unmounted"};
  }

  Refusal bringToMedium(const OpenVolume& copy) {
    state_.written = MirrorState::Written{copy.volume.digest(), tree_};
    if (Refusal refusal = place_.save(state_)) return refusal;
    const auto identity = device_.handle().identity();
    if (!identity) return dissenterFor(errno, location_.whole);
    const std::string name = state_.folder.substr(state_.folder.rfind('/') + 1);
    std::unique_ptr<Journal> journal;
    if (Refusal refusal = writeJournal(medium_, copy, device_.name(), *identity, name, journal)) return refusal;
    std::string noBackup;
    if (const auto failure = applyJournal(*journal, {&device_.handle()}, {}, noBackup)) return dissenterFor(*failure);
    static_cast<void>(setWritten());  // if it fails, the saved state and the volume's digest say the same
    return std::nullopt;
  }

  const DeviceLocation& location_;
  MirrorPlace& place_;
  MirrorState state_;
  const MirrorTree& tree_;
  VolumeDevice device_;
  OpenVolume medium_;
};

}  // namespace

Refusal writeBack(const DeviceLocation& location, MirrorPlace& place, const MirrorTree& tree) {
  return WriteBack(location, place, tree).run();
}

}  // namespace vorlix
