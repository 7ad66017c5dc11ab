// SPDX-License-Identifier: Apache-2.0
//
// Folders and files of an NTFS volume. Anybody may have written it: what the library reports is checked, and what it
// cannot read or would read wrongly is refused.
#pragma once

#include <libfsntfs.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VolumeBytes.h"

namespace vorlix::ntfs {

struct Item {
  std::string name;  ///< UTF-8
  bool isFolder = false;
  uint64_t size = 0;
};

/// Functions throw Failure. Paths are "" for the root, else like "/Windows/System32" in the volume's spelling.
class Volume {
 public:
  Volume(int device, uint64_t offset, uint64_t size);
  ~Volume();
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;

  /// Calls `receive` for each item of a folder, but for the volume's own tables in the root.
  void list(const std::string& folder, const std::function<void(const Item&)>& receive) const;

  /// Reads the first `count` bytes of a file, fewer if it is smaller.
  void read(const std::string& file, uint64_t count,
            const std::function<void(const uint8_t* bytes, size_t count)>& receive) const;

 private:
  struct FreeEntry {
    void operator()(libfsntfs_file_entry_t* entry) const { libfsntfs_file_entry_free(&entry, nullptr); }
  };
  using Entry = std::unique_ptr<libfsntfs_file_entry_t, FreeEntry>;

  std::vector<Entry> entriesOn(const std::string& path) const;
  static Entry child(libfsntfs_file_entry_t* folder, std::string_view name);
  static int childCount(libfsntfs_file_entry_t* folder);
  static Entry childAt(libfsntfs_file_entry_t* folder, int index);
  static std::string nameOf(libfsntfs_file_entry_t* entry);
  static bool isFolder(libfsntfs_file_entry_t* entry);
  static uint64_t sizeOf(libfsntfs_file_entry_t* entry);
  static uint64_t numberOf(libfsntfs_file_entry_t* entry);
  static void requireReadable(libfsntfs_file_entry_t* entry);
  static void requireNoLink(libfsntfs_file_entry_t* entry);

  VolumeBytes bytes_;
  libfsntfs_volume_t* volume_ = nullptr;
};

}  // namespace vorlix::ntfs
