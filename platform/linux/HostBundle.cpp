// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

namespace vorlix {

namespace fs = std::filesystem;

namespace {

// The file that this code was loaded from: the executable, or the shared library. The kernel is asked, since what the
// loader knows of an executable is what its caller called it.
fs::path fileOfThisCode() {
  const auto here = reinterpret_cast<uintptr_t>(&fileOfThisCode);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    uintptr_t first = 0;
    uintptr_t end = 0;
    int path = 0;  // range, permissions, offset, device, inode, path
    const int read = std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %*s %*s %*s %*s %n", &first, &end, &path);
    if (read == 2 && here >= first && here < end && path > 0) return line.substr(static_cast<size_t>(path));
  }
  return {};
}

// The data folder of the prefix that `code` was installed under; empty where it did not move with the prefix.
fs::path installedResources(const fs::path& code, const fs::path& executable) {
  const fs::path relative = code == executable ? VORLIX_RESOURCES_FROM_BINDIR : VORLIX_RESOURCES_FROM_LIBDIR;
  if (!code.is_absolute() || relative.empty()) return {};
  return (code.parent_path() / relative).lexically_normal();
}

}  // namespace

LinuxHostBundle::LinuxHostBundle() {
  std::error_code unreadable;
  const fs::path executable = fs::read_symlink("/proc/self/exe", unreadable);
  if (!unreadable) folders_.push_back(executable.parent_path());
  if (fs::path installed = installedResources(fileOfThisCode(), executable); !installed.empty()) {
    folders_.push_back(std::move(installed));
  }
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
