// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <string>
#include <system_error>
#include <utility>

#include "CodePlace.h"
#include "platform/posix/CompanionFolders.h"

namespace vorlix {

namespace fs = std::filesystem;

namespace {

// Returns the data folder of the prefix that `code` was installed under; empty if it does not move with the prefix.
fs::path installedResources(const fs::path& code, const fs::path& executable) {
  const fs::path relative = code == executable ? VORLIX_RESOURCES_FROM_BINDIR : VORLIX_RESOURCES_FROM_LIBDIR;
  if (!code.is_absolute() || relative.empty()) return {};
  return (code.parent_path() / relative).lexically_normal();
}

std::vector<fs::path> nativeFolders() {
  std::vector<fs::path> folders;
  std::error_code unreadable;
  const fs::path executable = fs::read_symlink("/proc/self/exe", unreadable);
  if (!unreadable) folders.push_back(executable.parent_path());
  if (fs::path installed = installedResources(fileOfThisCode(), executable); !installed.empty()) {
    folders.push_back(std::move(installed));
  }
  folders.emplace_back(VORLIX_RESOURCE_FOLDER);
  return folders;
}

std::optional<std::string> fileIn(const fs::path& folder, const std::string& file) {
  std::error_code unreadable;
  const fs::path path = folder / file;
  return fs::is_regular_file(path, unreadable) ? std::optional(path.string()) : std::nullopt;
}

}  // namespace

LinuxHostBundle::LinuxHostBundle() = default;

// Searches for the folders on first use, because most runs do not need them.
const std::vector<fs::path>& LinuxHostBundle::folders() const {
  if (folders_) return *folders_;
  static const std::vector<fs::path> native = nativeFolders();
  return native;
}

std::optional<std::string> LinuxHostBundle::pathForResource(const std::string& name, const std::string& type,
                                                            const std::string& directory) {
  const std::string file = type.empty() ? name : name + "." + type;
  // A resource is a file in the folder itself.
  if (name.empty() || file == "." || file == ".." || file.find('/') != std::string::npos) return std::nullopt;
  for (const fs::path& folder : folders()) {
    if (auto path = fileIn(folder / fs::path(directory).relative_path(), file)) return path;
  }
  if (directory != "tools/bin" || folders_) return std::nullopt;
  for (const fs::path& folder : companionFolders(fileOfThisCode())) {
    if (auto path = fileIn(folder, file)) return path;
  }
  return std::nullopt;
}

}  // namespace vorlix
