// SPDX-License-Identifier: Apache-2.0
#include "MirrorChanges.h"

#include <algorithm>
#include <map>
#include <set>

#include "FatNames.h"
#include "MirrorNames.h"

namespace vorlix {
namespace {

std::string parentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

bool isASCII(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char byte) { return byte < 0x80; });
}

// Finds out whether a file that the mirror and the volume have must be written.
Refusal isChanged(const MirrorTree& baseline, const std::string& path, const MirrorEntry& entry,
                  const std::string& folder, const OpenVolume& volume, const FatEntry& old, bool& changed) {
  const auto before = baseline.find(path);
  const bool isKnown = before != baseline.end();
  changed = !isKnown || before->second != entry;
  if (!changed || (isKnown && before->second.modified != entry.modified)) return std::nullopt;
  bool isEqual = false;
  if (Refusal refusal = compareFile(volume, old, folder + path, isEqual)) return refusal;
  changed = !isEqual;
  return std::nullopt;
}

// The names that the copy has or will have, in the case in which they are compared.
class NamesInUse {
 public:
  NamesInUse(const MirrorTree& tree, const MirrorChanges& changes) {
    for (const auto& [path, entry] : tree) names_.insert(foldedFatName(path));
    for (const FatEntry* const entry : changes.removed) names_.insert(foldedFatName(entry->path));
  }

  // Returns a name that no item of the folder has.
  std::string unusedIn(const std::string& folder) {
    for (;;) {
      std::string number = std::to_string(++number_);
      number.insert(0, number.size() < 6 ? 6 - number.size() : 0, '0');
      const std::string name = "NEW" + number.substr(0, 5) + "." + number.substr(5) + "NW";
      if (names_.insert(foldedFatName(folder + "/" + name)).second) return name;
    }
  }

 private:
  std::set<std::string> names_;
  unsigned number_ = 0;
};

class ChangesToCopy {
 public:
  ChangesToCopy(const MirrorChanges& changes, const MirrorTree& tree, const std::string& folder, const Mtools& copy)
      : changes_(changes), folder_(folder), copy_(copy), names_(tree, changes) {}

  Refusal oneAfterTheOther() {
    if (Refusal refusal = removeAll([](const FatEntry&) { return true; })) return refusal;
    for (const MirrorChanges::File& file : changes_.files) {
      if (file.old == nullptr) continue;
      if (Refusal refusal = removeFile(*file.old)) return refusal;
    }
    if (Refusal refusal = makeFolders()) return refusal;
    for (const MirrorChanges::File& file : changes_.files) {
      if (Refusal refusal = copy_.write(folder_ + file.path, file.path)) return refusal;
      if (Refusal refusal = keepAttributes(file)) return refusal;
    }
    return std::nullopt;
  }

  Refusal besideEachOther() {
    // Items in the place of new ones are removed first, folders with their content.
    std::set<std::string> wanted;
    for (const std::string& path : changes_.folders) wanted.insert(foldedFatName(path));
    for (const MirrorChanges::File& file : changes_.files) wanted.insert(foldedFatName(file.path));
    const auto isInTheWay = [&](const FatEntry& entry) { return wanted.count(foldedFatName(entry.path)) != 0; };
    if (Refusal refusal = removeAll(isInTheWay)) return refusal;
    if (Refusal refusal = makeFolders()) return refusal;
    // The old file is renamed and the new one created under the name: mtools keeps the letter case of a new file's
    // name, but changes it to upper case when it renames a file.
    std::vector<FatEntry> old;
    for (const MirrorChanges::File& file : changes_.files) {
      if (file.old != nullptr) {
        const std::string name = names_.unusedIn(parentOf(file.path));
        if (Refusal refusal = copy_.rename(file.path, name)) return refusal;
        FatEntry& renamed = old.emplace_back();
        renamed.path = parentOf(file.path) + "/" + name;
        renamed.attributes = file.old->attributes;
      }
      if (Refusal refusal = copy_.write(folder_ + file.path, file.path)) return refusal;
      if (Refusal refusal = keepAttributes(file)) return refusal;
    }
    if (Refusal refusal = removeAll([&](const FatEntry& entry) { return !isInTheWay(entry); })) return refusal;
    for (const FatEntry& entry : old) {
      if (Refusal refusal = removeFile(entry)) return refusal;
    }
    return std::nullopt;
  }

 private:
  Refusal makeFolders() {
    for (const std::string& path : changes_.folders) {
      if (Refusal refusal = copy_.makeFolder(path)) return refusal;
    }
    return std::nullopt;
  }

  Refusal allowRemoval(const FatEntry& entry) {
    if ((entry.attributes & kFatReadOnly) == 0) return std::nullopt;
    return copy_.setAttributes(entry.path, {"-r"});
  }

  Refusal removeFile(const FatEntry& entry) {
    if (Refusal refusal = allowRemoval(entry)) return refusal;
    return copy_.remove(entry.path, false);
  }

  // Removes the entries that `pick` selects, except those in folders that were removed.
  template <typename Pick>
  Refusal removeAll(Pick pick) {
    std::vector<const FatEntry*> roots;
    for (const FatEntry* const entry : changes_.removed) {
      const bool isGone = gone_.count(parentOf(entry->path)) != 0;
      if (isGone || (pick(*entry) && gone_.count(entry->path) == 0)) {
        if (!gone_.insert(entry->path).second) continue;
        if (!isGone) roots.push_back(entry);
        if (Refusal refusal = allowRemoval(*entry)) return refusal;
      }
    }
    for (const FatEntry* const entry : roots) {
      if (Refusal refusal = copy_.remove(entry->path, entry->isFolder)) return refusal;
    }
    return std::nullopt;
  }

  Refusal keepAttributes(const MirrorChanges::File& file) {
    if (file.old == nullptr) return std::nullopt;
    std::vector<std::string> letters;
    if ((file.old->attributes & kFatReadOnly) != 0) letters.emplace_back("+r");
    if ((file.old->attributes & kFatHidden) != 0) letters.emplace_back("+h");
    if ((file.old->attributes & kFatSystem) != 0) letters.emplace_back("+s");
    return letters.empty() ? std::nullopt : copy_.setAttributes(file.path, letters);
  }

  const MirrorChanges& changes_;
  const std::string& folder_;
  const Mtools& copy_;
  NamesInUse names_;
  std::set<std::string> gone_;
};

}  // namespace

Refusal findChanges(const MirrorTree& baseline, const MirrorTree& tree, const std::string& folder,
                    const OpenVolume& volume, MirrorChanges& changes) {
  std::map<std::string, const FatEntry*> onVolume;
  for (const FatEntry& entry : volume.volume.entries()) {
    const auto own = tree.find(entry.path);
    if (own != tree.end() && own->second.isFolder == entry.isFolder) {
      onVolume[entry.path] = &entry;
    } else {
      changes.removed.push_back(&entry);
    }
  }
  for (const auto& [path, entry] : tree) {
    const auto there = onVolume.find(path);
    if (there == onVolume.end()) {
      if (Refusal refusal = checkFatName(path)) return refusal;
      if (entry.isFolder) {
        changes.folders.push_back(path);
      } else {
        changes.files.push_back({path, nullptr});
      }
      continue;
    }
    if (entry.isFolder) continue;
    bool changed = false;
    if (Refusal refusal = isChanged(baseline, path, entry, folder, volume, *there->second, changed)) return refusal;
    if (changed) changes.files.push_back({path, there->second});
  }
  return changes.empty() ? std::nullopt : checkFatCase(tree);
}

Refusal checkRoom(const MirrorChanges& changes, const MirrorTree& tree, const FatVolume& volume, Room& room) {
  uint64_t freed = 0;
  for (const FatEntry* const entry : changes.removed) {
    for (const FatRun& run : entry->runs) freed += run.count;
  }
  for (const MirrorChanges::File& file : changes.files) {
    if (file.old != nullptr) freed += volume.clustersFor(file.old->size);
  }
  const uint64_t free = volume.freeClusters();
  uint64_t needed = 0;
  for (const std::string& path : changes.folders) {
    if (++needed > free + freed) return Dissenter{kDissentNoResources, path + " could not be made: Disk full"};
  }
  for (const MirrorChanges::File& file : changes.files) {
    needed += volume.clustersFor(tree.at(file.path).size);
    if (needed <= free + freed) continue;
    return Dissenter{kDissentNoResources, file.path + " could not be written: Disk full"};
  }
  room = needed <= free ? Room::besideEachOther : Room::oneAfterTheOther;
  return std::nullopt;
}

Refusal applyChanges(const MirrorChanges& changes, const MirrorTree& tree, const std::string& folder, Room room,
                     const Mtools& copy) {
  ChangesToCopy application(changes, tree, folder, copy);
  return room == Room::besideEachOther ? application.besideEachOther() : application.oneAfterTheOther();
}

Refusal checkCopy(const OpenVolume& copy, const MirrorTree& tree, const std::string& folder) {
  std::map<std::string, const FatEntry*> onCopy;
  for (const FatEntry& entry : copy.volume.entries()) onCopy[foldedFatName(entry.path)] = &entry;
  const auto differs = [](const std::string& path) {
    return Dissenter{kDissentError,
                     path + " did not become the same as in the mirror; nothing was written to the disk"};
  };
  for (const auto& [path, entry] : tree) {
    const auto found = onCopy.find(foldedFatName(path));
    if (found == onCopy.end() || found->second->isFolder != entry.isFolder) return differs(path);
    if (found->second->path != path && isASCII(path)) return differs(path);
    if (entry.isFolder) continue;
    bool isEqual = false;
    if (Refusal refusal = compareFile(copy, *found->second, folder + path, isEqual)) return refusal;
    if (!isEqual) return differs(path);
  }
  if (copy.volume.entries().size() == tree.size()) return std::nullopt;
  return Dissenter{kDissentError, "the volume would hold other files than its mirror; nothing was written to the disk"};
}

}  // namespace vorlix
