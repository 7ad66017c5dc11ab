// SPDX-License-Identifier: Apache-2.0
//
// The host's resources, beside its executable or else in the library's data folder.
#pragma once

#include <Vorlix/platform/HostBundle.h>

#include <filesystem>
#include <optional>
#include <vector>

namespace vorlix {

/// Searches folders in order for a regular file.
class LinuxHostBundle : public HostBundle {
 public:
  /// Searches the folder of the running executable, then the data folder of the prefix that the executable or the
  /// library was installed under (both paths come from the kernel), then the data folder of the prefix that was chosen
  /// when the library was built. Programs of "tools/bin" are looked for among the companion programs last.
  LinuxHostBundle();

  explicit LinuxHostBundle(std::vector<std::filesystem::path> folders) : folders_(std::move(folders)) {}

  std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                             const std::string& directory) override;

 private:
  const std::vector<std::filesystem::path>& folders() const;

  std::optional<std::vector<std::filesystem::path>> folders_;  // absent for those of this process
};

}  // namespace vorlix
