// SPDX-License-Identifier: Apache-2.0
#include "ModuleLoader.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/SystemError.h>
#include "platform/linux/CodePlace.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

// The places of an installation that was moved, then of the prefix it was built for. No environment and no search path
// has a say in what a privileged host loads.
std::vector<fs::path> modulePlaces(const fs::path& code, const std::string& module) {
  std::vector<fs::path> places;
  if (code.is_absolute()) {
    places.push_back(code.parent_path() / module);
    const fs::path fromPrograms = VORLIX_LIBRARIES_FROM_BINDIR;
    if (!fromPrograms.empty()) places.push_back((code.parent_path() / fromPrograms / module).lexically_normal());
  }
  places.push_back(fs::path(VORLIX_LIBRARY_FOLDER) / module);
  return places;
}

// Whoever can write the module can be the super-user's process. So it has to be the super-user's alone, or in no more
// hands than the code that asks for it.
bool isTrusted(const struct stat& module, const fs::path& code) {
  if (!S_ISREG(module.st_mode)) return false;
  if (geteuid() != 0) return true;
  const mode_t othersWrite = module.st_mode & (S_IWGRP | S_IWOTH);
  if (module.st_uid == 0 && othersWrite == 0) return true;
  struct stat own = {};
  return stat(code.c_str(), &own) == 0 && module.st_uid == own.st_uid && module.st_gid == own.st_gid &&
         (othersWrite & ~own.st_mode) == 0;
}

}  // namespace

LoadedEntry loadModule(const char* file, const char* entry) {
  LoadedEntry loaded = {nullptr, std::string(VORLIX_MODULE_FOLDER "/") + file, "not found"};
  const fs::path code = fileOfThisCode();
  for (const fs::path& place : modulePlaces(code, loaded.name)) {
    const Descriptor opened(open(place.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status = {};
    if (!opened || fstat(opened.get(), &status) != 0) {
      if (errno != ENOENT && errno != ENOTDIR) loaded.reason = place.string() + ": " + SystemError{errno}.reason();
      continue;
    }
    if (!isTrusted(status, code)) {
      loaded.reason = place.string() + ": others may write to it";
      continue;
    }
    // By the descriptor, so that what is loaded is the file that was looked at. The linker takes a name that it has met
    // before for the same file, and descriptors' numbers come again: more slashes make another name.
    static std::atomic<size_t> loads = 0;
    const std::string name = "/proc/self/fd" + std::string(++loads, '/') + std::to_string(opened.get());
    void* const module = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    loaded.entry = module == nullptr ? nullptr : dlsym(module, entry);
    if (loaded.entry != nullptr) return loaded;
    const char* const error = dlerror();
    loaded.reason = place.string() + ": " + (error == nullptr ? "cannot be loaded" : error);
  }
  return loaded;
}

}  // namespace vorlix
