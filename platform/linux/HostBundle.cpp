// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <system_error>
#include <utility>

namespace vorlix {

namespace fs = std::filesystem;

LinuxHostBundle::LinuxHostBundle() {
  std::error_code unreadable;
  const fs::path executable = fs::read_symlink("/proc/self/exe", unreadable);
  if (!unreadable) folders_.push_back(executable.parent_path());
  folders_.emplace_back(VORLIX_RESOURCE_FOLDER);
}

std::optional<std::string> LinuxHostBundle::pathForResource(const std::string& name, const std::string& type,
                                                            const std::string& directory) {
  const std::string file = type.empty() ? name : name + "." + type;
  // A resource is a file in the folder itself.
  if (name.empty() || file == "." || file == ".." || file.find('/') != std::string::npos) return std::nullopt;
  for (const fs::path& folder : folders_) {
    std::error_code unreadable;
    const fs::path path = folder / fs::path(directory).relative_path() / file;
    if (fs::is_regular_file(path, unreadable)) return path.string();
  }
  return std::nullopt;
}

}  // namespace vorlix
