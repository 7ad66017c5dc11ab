// SPDX-License-Identifier: Apache-2.0
//
// Files and folders in memory.
#pragma once

#include <memory>
#include <optional>
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
  bool ignoresCase = false;    ///< of a folder: names in it, and in the folders below, are the same in any case

  /// The place of an entry, or that after the last one.
  std::vector<Entry>::iterator find(const std::string& name);

  /// A copy with all that is below it.
  std::unique_ptr<SimulatedItem> copy() const;
};

/// Paths begin at the root, relative ones as well.
class SimulatedFileTree {
 public:
  /// Returns whether nothing was ever added.
  bool isUnused() const { return !used_; }

  /// Adds an item in place of what stands there, with the folders above it. @return the item.
  SimulatedItem& add(const std::string& path, SimulatedItem::Kind kind, std::string text = "");

  /// Puts an item at a path whose folder must exist. @return false if it does not, or if the name is taken.
  bool put(const std::string& path, std::unique_ptr<SimulatedItem> item);

  void remove(const std::string& path);

  /// What stands at a path; null if nothing does. Links on the way are followed, one in the last place if
  /// `followsLast`.
  SimulatedItem* find(const std::string& path, bool followsLast = true);

 private:
  /// The folder that a path's last name belongs into; null if it does not exist.
  struct Place {
    SimulatedItem* folder = nullptr;
    std::string name;
  };
  Place placeOf(const std::string& path);

  SimulatedItem root_;
  bool used_ = false;
};

}  // namespace vorlix
