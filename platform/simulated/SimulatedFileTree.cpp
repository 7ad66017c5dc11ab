// SPDX-License-Identifier: Apache-2.0
#include "SimulatedFileTree.h"

#include <Vorlix/foundation/CaseFolding.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace vorlix {
namespace {

constexpr int kLongestChainOfLinks = 40;

using Names = std::vector<std::string>;

Names namesOf(const std::string& path) {
  Names names;
  for (size_t from = 0; from <= path.size();) {
    const size_t end = std::min(path.find('/', from), path.size());
    if (end > from && path.substr(from, end - from) != ".") names.push_back(path.substr(from, end - from));
    from = end + 1;
  }
  return names;
}

// Follows a path from the root. `names` are the names that are left, the next one at the end.
SimulatedItem* walk(SimulatedItem& root, const std::string& path, bool followsLast) {
  Names names = namesOf(path);
  std::reverse(names.begin(), names.end());
  std::vector<SimulatedItem*> way = {&root};
  for (int links = 0; !names.empty();) {
    const std::string name = std::move(names.back());
    names.pop_back();
    if (way.back()->kind != SimulatedItem::Kind::folder) return nullptr;
    if (name == "..") {
      if (way.size() > 1) way.pop_back();
      continue;
    }
    const auto entry = way.back()->find(name);
    if (entry == way.back()->entries.end()) return nullptr;
    SimulatedItem& item = *entry->second;
    if (item.kind == SimulatedItem::Kind::link && (followsLast || !names.empty())) {
      if (++links > kLongestChainOfLinks) return nullptr;
      if (item.text.starts_with('/')) way.resize(1);
      const Names target = namesOf(item.text);
      names.insert(names.end(), target.rbegin(), target.rend());
    } else {
      way.push_back(&item);
    }
  }
  return way.back();
}

}  // namespace

std::vector<SimulatedItem::Entry>::iterator SimulatedItem::find(const std::string& name) {
  const auto exact = std::find_if(entries.begin(), entries.end(), [&](const Entry& one) { return one.first == name; });
  if (exact != entries.end() || !ignoresCase) return exact;
  return std::find_if(entries.begin(), entries.end(),
                      [&](const Entry& one) { return lowerCase(one.first) == lowerCase(name); });
}

std::unique_ptr<SimulatedItem> SimulatedItem::copy() const {
  auto copied = std::make_unique<SimulatedItem>();
  copied->kind = kind;
  copied->text = text;
  copied->ignoresCase = ignoresCase;
  for (const auto& [name, item] : entries) copied->entries.emplace_back(name, item->copy());
  return copied;
}

SimulatedItem& SimulatedFileTree::add(const std::string& path, SimulatedItem::Kind kind, std::string text) {
  used_ = true;
  SimulatedItem* item = &root_;
  for (const std::string& name : namesOf(path)) {
    if (item->kind != SimulatedItem::Kind::folder) throw std::invalid_argument("not in a folder: " + path);
    auto entry = item->find(name);
    if (entry == item->entries.end()) {
      item->entries.emplace_back(name, std::make_unique<SimulatedItem>());
      entry = std::prev(item->entries.end());
      entry->second->ignoresCase = item->ignoresCase;
    }
    item = entry->second.get();
  }
  item->kind = kind;
  item->text = std::move(text);
  if (kind != SimulatedItem::Kind::folder) item->entries.clear();
  return *item;
}

bool SimulatedFileTree::put(const std::string& path, std::unique_ptr<SimulatedItem> item) {
  const Place place = placeOf(path);
  if (place.folder == nullptr || place.folder->find(place.name) != place.folder->entries.end()) return false;
  place.folder->entries.emplace_back(place.name, std::move(item));
  return true;
}

void SimulatedFileTree::remove(const std::string& path) {
  const Place place = placeOf(path);
  if (place.folder == nullptr) return;
  const auto entry = place.folder->find(place.name);
  if (entry != place.folder->entries.end()) place.folder->entries.erase(entry);
}

SimulatedFileTree::Place SimulatedFileTree::placeOf(const std::string& path) {
  const Names names = namesOf(path);
  if (names.empty()) return {};
  SimulatedItem* const folder = find("/" + path.substr(0, path.rfind(names.back())));
  if (folder == nullptr || folder->kind != SimulatedItem::Kind::folder) return {};
  return {folder, names.back()};
}

SimulatedItem* SimulatedFileTree::find(const std::string& path, bool followsLast) {
  return path.empty() ? nullptr : walk(root_, path, followsLast);
}

}  // namespace vorlix
