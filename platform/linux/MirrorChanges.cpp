// SPDX-License-Identifier: Apache-2.0
#include "MirrorChanges.h"

#include <map>

namespace vorlix {
namespace {

bool isTouched(const MirrorState& state, const std::string& path, const MirrorEntry& entry) {
  const auto before = state.baseline.find(path);
  return state.compareAll || before == state.baseline.end() || before->second != entry;
}

bool hasOtherTime(const MirrorState& state, const std::string& path, const MirrorEntry& entry) {
  const auto before = state.baseline.find(path);
  return before != state.baseline.end() && before->second.modified != entry.modified;
}

// Whether a file that both have must be written.
Refusal isChanged(const MirrorState& state, const std::string& path, const MirrorEntry& entry, const Mtools& volume,
                  bool& changed) {
  changed = isTouched(state, path, entry);
  if (!changed || hasOtherTime(state, path, entry)) return std::nullopt;
  bool isEqual = false;
  if (Refusal refusal = volume.compare(path, state.folder + path, isEqual)) return refusal;
  changed = !isEqual;
  return std::nullopt;
}

}  // namespace

Refusal findChanges(const MirrorState& state, const MirrorTree& tree, const Mtools& volume, MirrorChanges& changes) {
  std::vector<Mtools::Entry> listed;
  if (Refusal refusal = volume.list(listed)) return refusal;
  std::map<std::string, Mtools::Entry> onVolume;
  std::string removedFolder;
  for (const Mtools::Entry& entry : listed) {
    const auto own = tree.find(entry.path);
    if (own != tree.end() && own->second.isFolder == entry.isFolder) {
      onVolume[entry.path] = entry;
      continue;
    }
    if (!removedFolder.empty() && entry.path.rfind(removedFolder + "/", 0) == 0) continue;
    if (entry.isFolder) removedFolder = entry.path;
    changes.removed.push_back(entry);
  }
  for (const auto& [path, entry] : tree) {
    const auto there = onVolume.find(path);
    if (there == onVolume.end()) {
      if (Refusal refusal = checkFatName(path)) return refusal;
      if (entry.isFolder) {
        changes.folders.push_back(path);
      } else {
        changes.files.push_back({path, false, ""});
      }
      continue;
    }
    if (entry.isFolder) continue;
    bool changed = false;
    if (Refusal refusal = isChanged(state, path, entry, volume, changed)) return refusal;
    if (changed) changes.files.push_back(there->second);
  }
  return changes.empty() ? std::nullopt : checkFatCase(tree);
}

Refusal applyChanges(const MirrorChanges& changes, const MirrorState& state, const MirrorTree& tree,
                     const Mtools& volume) {
  for (const Mtools::Entry& entry : changes.removed) {
    if (Refusal refusal = volume.remove(entry.path, entry.isFolder)) return refusal;
  }
  for (const std::string& path : changes.folders) {
    if (Refusal refusal = volume.makeFolder(path)) return refusal;
  }
  for (const Mtools::Entry& entry : changes.files) {
    if (Refusal refusal = volume.write(state.folder + entry.path, entry.path)) return refusal;
    if (Refusal refusal = volume.addAttributes(entry.path, entry.attributes)) return refusal;
  }
  std::vector<Mtools::Entry> listed;
  if (Refusal refusal = volume.list(listed)) return refusal;
  if (listed.size() == tree.size()) return std::nullopt;
  return Dissenter{kDissentError, "the volume holds other files than its mirror after writing them back"};
}

}  // namespace vorlix
