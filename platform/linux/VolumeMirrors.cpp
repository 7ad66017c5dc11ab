// SPDX-License-Identifier: Apache-2.0
#include "VolumeMirrors.h"

#include <fcntl.h>

#include <cerrno>

#include "DeviceNames.h"
#include "FatVolume.h"
#include "MirrorLookup.h"
#include "MirrorTree.h"
#include "MirroredVolume.h"
#include "Mounting.h"
#include "OpenedDevice.h"
#include "UnmountedFat.h"
#include "UnmountedNtfs.h"
#include "VolumeDevice.h"
#include "VolumeProbe.h"

namespace vorlix {
namespace {

VolumeMirror::Volume standingOf(MirroredVolumeIs volume) {
  switch (volume) {
    case MirroredVolumeIs::gone:
      return VolumeMirror::Volume::gone;
    case MirroredVolumeIs::replaced:
      return VolumeMirror::Volume::replaced;
    default:
      return VolumeMirror::Volume::there;
  }
}

std::optional<DeviceLocation> locationOf(const std::string& name) {
  return locateDevice(name.starts_with("/") ? name : "/dev/" + name);
}

// Returns the tree that the mirror had when the volume was the same: that of the last write-back if the volume has it,
// or else the one before.
const MirrorTree& treeOnVolume(const MirrorState& state) {
  if (!state.written) return state.baseline;
  const std::optional<DeviceLocation> location = locationOf(state.device);
  const std::optional<OpenedDevice> opened = location ? openLocation(*location, O_RDONLY) : std::nullopt;
  FatVolume volume;
  if (!opened || volume.read(opened->descriptor.get(), opened->window)) return state.baseline;
  const bool isWritten = volume.identity() == state.identity && volume.digest() == state.written->digest;
  return isWritten ? state.written->tree : state.baseline;
}

std::vector<std::string> changesIn(const MirrorState& state) {
  const MirrorTree& onVolume = treeOnVolume(state);
  MirrorTree tree;
  std::vector<std::string> changes;
  if (const Refusal unread = scanMirror(state.folder, tree)) return {"unreadable: " + unread->text};
  for (const auto& [path, entry] : tree) {
    const auto before = onVolume.find(path);
    if (before == onVolume.end() || before->second.isFolder != entry.isFolder) {
      changes.push_back("new " + path);
    } else if (before->second != entry) {
      changes.push_back("changed " + path);
    }
  }
  for (const auto& [path, entry] : onVolume) {
    if (tree.find(path) == tree.end()) changes.push_back("removed " + path);
  }
  return changes;
}

}  // namespace

std::unique_ptr<UnmountedVolume> LinuxVolumeMirrors::openUnmounted(const std::string& device,
                                                                   std::optional<Dissenter>& refusal) {
  const std::optional<DeviceLocation> location = locationOf(device);
  refusal.reset();
  return location ? openUnmountedFat(*location, refusal) : nullptr;
}

std::unique_ptr<UnmountedVolume> LinuxVolumeMirrors::openToRead(const std::string& device,
                                                                std::optional<Dissenter>& refusal) {
  const std::optional<DeviceLocation> location = locationOf(device);
  refusal.reset();
  if (!location) {
    refusal = dissenterFor(errno, device);
    return nullptr;
  }
  std::optional<OpenedDevice> opened = openLocation(*location, O_RDONLY);
  if (!opened) {
    refusal = dissenterFor(errno, location->node);
    return nullptr;
  }
  if (volumePlaceOf(*location, opened)) return nullptr;
  const std::optional<ProbedVolume> facts = probeVolume(opened->descriptor.get(), opened->window);
  if (facts && facts->kind == "msdos") return fatToRead(*std::move(opened), refusal);
  if (facts && facts->kind == "ntfs") return ntfsToRead(*std::move(opened), refusal);
  refusal = Dissenter{kDissentUnsupported, facts ? "not mounted, and it is " + facts->kind + ", not FAT or NTFS"
                                                 : "not mounted, and no file system is recognised on it"};
  return nullptr;
}

std::vector<VolumeMirror> LinuxVolumeMirrors::mirrors() {
  std::vector<VolumeMirror> mirrors;
  for (const FoundMirror& found : findMirrors()) {
    const MirrorState& state = found.mirror.state;
    mirrors.push_back({state.device, state.folder, standingOf(found.volume), changesIn(state)});
  }
  return mirrors;
}

std::optional<Dissenter> LinuxVolumeMirrors::settle(const VolumeMirror& mirror) {
  // A change that was begun on a missing volume waits for it. A volume that replaced it is not concerned.
  if (mirror.volume != VolumeMirror::Volume::there) return std::nullopt;
  const std::optional<DeviceLocation> location = locationOf(mirror.device);
  return location ? settleVolume(*location) : dissenterFor(errno, mirror.device);
}

std::optional<Dissenter> LinuxVolumeMirrors::discard(const VolumeMirror& mirror) {
  for (const FoundMirror& found : findMirrors()) {
    if (found.mirror.state.folder != mirror.folder) continue;
    return discardMirror(found.mirror.key, found.mirror.state.identity);
  }
  return Dissenter{kDissentNotMounted, mirror.folder + " does not exist any more"};
}

void LinuxVolumeMirrors::allowEmpty(const std::string& folder, const std::vector<std::string>& files) {
  allowEmptyMirror(folder, files);
}

}  // namespace vorlix
