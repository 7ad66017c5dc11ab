// SPDX-License-Identifier: Apache-2.0
#include "VolumeMirrors.h"

#include "MirrorState.h"
#include "MirrorTree.h"
#include "MirroredVolume.h"

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

std::vector<std::string> changesIn(const MirrorState& state) {
  MirrorTree tree;
  std::vector<std::string> changes;
  if (const Refusal unread = scanMirror(state.folder, tree)) return {"unreadable: " + unread->text};
  for (const auto& [path, entry] : tree) {
    const auto before = state.baseline.find(path);
    if (before == state.baseline.end() || before->second.isFolder != entry.isFolder) {
      changes.push_back("new " + path);
    } else if (before->second != entry) {
      changes.push_back("changed " + path);
    }
  }
  for (const auto& [path, entry] : state.baseline) {
    if (tree.find(path) == tree.end()) changes.push_back("removed " + path);
  }
  return changes;
}

}  // namespace

std::vector<VolumeMirror> LinuxVolumeMirrors::mirrors() {
  std::vector<VolumeMirror> mirrors;
  for (const FoundMirror& found : findMirrors()) {
    const MirrorState& state = found.mirror.state;
    mirrors.push_back({state.device, state.folder, standingOf(found.volume), changesIn(state)});
  }
  return mirrors;
}

std::optional<Dissenter> LinuxVolumeMirrors::discard(const VolumeMirror& mirror) {
  for (const FoundMirror& found : findMirrors()) {
    if (found.mirror.state.folder != mirror.folder) continue;
    return discardMirror(found.mirror.key, found.mirror.state.identity);
  }
  return Dissenter{kDissentNotMounted, mirror.folder + " is not there any more"};
}

}  // namespace vorlix
