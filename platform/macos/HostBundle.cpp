// SPDX-License-Identifier: Apache-2.0
#include "HostBundle.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "CFOwned.h"
#include "CFValue.h"
#include "platform/posix/CompanionFolders.h"

namespace vorlix {
namespace {

// Returns the file that the library's code was loaded from, without links; empty if the loader does not know it.
std::filesystem::path fileOfThisCode() {
  Dl_info info = {};
  char path[PATH_MAX] = {};
  if (dladdr(reinterpret_cast<const void*>(&fileOfThisCode), &info) == 0 || info.dli_fname == nullptr) return {};
  return realpath(info.dli_fname, path) == nullptr ? std::filesystem::path() : std::filesystem::path(path);
}

std::optional<std::string> ownProgram(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return std::nullopt;
  for (const std::filesystem::path& folder : companionFolders(fileOfThisCode())) {
    std::error_code unreadable;
    const std::filesystem::path path = folder / name;
    if (std::filesystem::is_regular_file(path, unreadable)) return path.string();
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> MacHostBundle::pathForResource(const std::string& name, const std::string& type,
                                                          const std::string& directory) {
  const CFBundleRef bundle = CFBundleGetMainBundle();  // not owned
  const auto nameText = stringToCF(name);
  const auto typeText = stringToCF(type);
  const auto directoryText = stringToCF(directory);
  if (bundle == nullptr || !nameText || !typeText || !directoryText) return std::nullopt;
  // An empty type counts as none.
  const CFOwned<CFURLRef> url(CFBundleCopyResourceURL(bundle, nameText.get(), typeText.get(),
                                                      directory.empty() ? nullptr : directoryText.get()));
  UInt8 path[PATH_MAX] = {};
  if (url && CFURLGetFileSystemRepresentation(url.get(), true, path, sizeof path)) {
    return reinterpret_cast<const char*>(path);
  }
  return type.empty() && directory == "tools/bin" ? ownProgram(name) : std::nullopt;
}

}  // namespace vorlix
