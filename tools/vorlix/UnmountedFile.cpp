// SPDX-License-Identifier: Apache-2.0
#include "UnmountedFile.h"

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "Arbitration.h"
#include "Failure.h"
#include "FileReplacement.h"
#include "Text.h"

namespace vorlix::tool {

std::unique_ptr<UnmountedFile> UnmountedFile::open(const std::string& slice, const std::string& folder,
                                                   const std::string& name, size_t limit) {
  std::optional<Dissenter> refusal;
  std::unique_ptr<UnmountedFile> file(new UnmountedFile);
  file->slice_ = slice;
  file->volume_ = platform().volumeMirrors->openUnmounted(slice, refusal);
  if (refusal) throw Failure(slice, reasonText(*refusal));
  if (!file->volume_) return nullptr;
  file->findFolder(folder);
  // What a replacement that was cut off has left is taken away where the volume is mounted.
  if (file->find(file->folder_, FileReplacement::asideNameOf(name))) return nullptr;
  file->findFile(name, limit);
  return file;
}

std::optional<UnmountedVolume::Item> UnmountedFile::find(const std::string& folder, const std::string& name) const {
  const std::vector<UnmountedVolume::Item> items = volume_->itemsIn(folder);
  std::vector<std::string> names;
  for (const UnmountedVolume::Item& item : items) names.push_back(item.name);
  const std::vector<std::string> found = spellingsOf(names, name);
  if (found.empty()) return std::nullopt;
  if (found.size() > 1) {
    throw Failure(placeOf(folder),
                  "holds " + found[0] + " and " + found[1] + ", of which Windows sees one only; remove the other");
  }
  return *std::find_if(items.begin(), items.end(), [&](const auto& item) { return item.name == found.front(); });
}

void UnmountedFile::findFolder(const std::string& names) {
  std::istringstream rest(names);
  for (std::string name; std::getline(rest, name, '/');) {
    const auto item = find(folder_, name);
    if (!item) throw Failure(placeOf(folder_ + "/" + name), "no such folder on the volume");
    folder_ += "/" + item->name;
    if (!item->isFolder) throw Failure(placeOf(folder_), "is a file, no folder");
  }
}

void UnmountedFile::findFile(const std::string& name, size_t limit) {
  const auto item = find(folder_, name);
  path_ = folder_ + "/" + (item ? item->name : name);
  if (!item) return;
  if (item->isFolder) throw Failure(placeOf(path_), "is a folder, not a regular file");
  if (item->size > limit) throw Failure(placeOf(path_), "larger than " + sizeText(limit));
  if (const auto refusal = volume_->read(path_, old_.emplace())) throw Failure(placeOf(path_), reasonText(*refusal));
}

std::string UnmountedFile::replaceBy(const ByteVector& bytes, const ChangeBackup& backup) {
  std::string kept;
  std::string state;
  const auto refusal = volume_->write(path_, bytes, backup, kept, state);
  if (!refusal) return kept;
  if (state.empty()) state = old_ ? "the old one stands there unchanged" : "none was made";
  throw Failure(placeOf(path_), reasonText(*refusal), state);
}

}  // namespace vorlix::tool
