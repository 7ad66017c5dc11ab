// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/StartCheck.h>
#include <Vorlix/platform/VolumeMirrors.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Arbitration.h"
#include "VolumeFolder.h"

namespace vorlix::tool {

/// Looks at files of a volume without changing or mounting anything: in the folder where the volume is mounted, or in
/// the bytes of a FAT or NTFS volume that is not mounted. Names are found in any spelling that Windows would find.
class VolumeLook {
 public:
  explicit VolumeLook(const std::string& slice);

  /// The same for a slice whose place was looked up already.
  VolumeLook(const std::string& slice, const DevicePlace& place);

  /// Looks for a file. @param names  the folders, then the file.
  FileFact fact(const std::vector<std::string>& names) const { return look(names, false, 0); }

  /// The same with the file's content. A file of more than `limit` bytes counts as unseen.
  FileFact content(const std::vector<std::string>& names, size_t limit) const { return look(names, true, limit); }

  /// Returns whether the volume's root has a hibernated Windows (hiberfil.sys that begins with "hibr"). Absent if that
  /// cannot be seen.
  std::optional<bool> isHibernated() const;

  bool isMounted() const { return root_.has_value(); }

 private:
  void open(const std::string& slice, const DevicePlace& place);
  FileFact look(const std::vector<std::string>& names, bool withContent, size_t limit) const;
  FileFact lookInFolder(const std::vector<std::string>& names, bool withContent, size_t limit) const;
  FileFact lookInBytes(const std::vector<std::string>& names, bool withContent, size_t limit) const;

  std::optional<bool> hibernationInFolder() const;
  std::optional<bool> hibernationInBytes() const;

  std::string reason_;
  std::optional<VolumeFolder> root_;
  std::unique_ptr<UnmountedVolume> volume_;
};

}  // namespace vorlix::tool
