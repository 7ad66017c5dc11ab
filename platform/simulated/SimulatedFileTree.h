// SPDX-License-Identifier: Apache-2.0
//
// Files and folders in memory.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vorlix {

/// One file, folder, link or special file.
struct SimulatedItem {
  enum class Kind { file, folder, link, special };
  using Entry = std::pair<std::string, std::unique_ptr<SimulatedItem>>;

  Kind kind = Kind::folder;
  std::string text;            ///< a file's contents, a link's target
  std::vector<Entry> entries;  ///< a folder's, in the order in which they were added
  bool ignoresCase = false;    ///< of a folder: names in it and in the folders below are compared without case

  /// Returns the entry with that name, or the end of the entries.
  std::vector<Entry>::iterator find(const std::string& name);

  /// Returns a copy of the item and everything below it.
  std::unique_ptr<SimulatedItem> copy() const;
};

/// All paths begin at the root, even relative ones.
class SimulatedFileTree {
 public:
  /// Returns whether nothing was added yet.
  bool isUnused() const { return !used_; }

  /// Adds an item and the folders above it, and replaces an item with that path. @return the item.
  SimulatedItem& add(const std::string& path, SimulatedItem::Kind kind, std::string text = "");

  /// Adds an item in an existing folder. @return false if the folder does not exist or has an item with that name.
  bool put(const std::string& path, std::unique_ptr<SimulatedItem> item);

  void remove(const std::string& path);

  /// Returns the item at a path, or null. Follows links on the way, and a link at the end if `followsLast`.
  SimulatedItem* find(const std::string& path, bool followsLast = true);

 private:
  /// The folder of a path's last name; null if it does not exist.
  struct Place {
    SimulatedItem* folder = nullptr;
    std::string name;
  };
  Place placeOf(const std::string& path);

  SimulatedItem root_;
  bool used_ = false;
};

}  // namespace vorlix
