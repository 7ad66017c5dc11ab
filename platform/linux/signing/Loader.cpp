// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/SystemError.h>
#include "Module.h"
#include "platform/linux/CodePlace.h"
#include "platform/linux/SignersUnit.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kModule = VORLIX_MODULE_FOLDER "/signing.so";
constexpr size_t kLongestUnit = 4096;  // X.520 allows 64 characters

// Returns the places in an installation that was moved, then those in the prefix that was chosen for the build. The
// environment and search paths have no influence on what a privileged host loads.
std::vector<fs::path> modulePlaces(const fs::path& code) {
  std::vector<fs::path> places;
  if (code.is_absolute()) {
    places.push_back(code.parent_path() / kModule);
    const fs::path fromPrograms = VORLIX_LIBRARIES_FROM_BINDIR;
    if (!fromPrograms.empty()) places.push_back((code.parent_path() / fromPrograms / kModule).lexically_normal());
  }
  places.push_back(fs::path(VORLIX_LIBRARY_FOLDER) / kModule);
  return places;
}

// The module runs with the rights of the host. So for the super-user it must be writable by the super-user alone, or by
// nobody who cannot write the code that loads it.
bool isTrusted(const struct stat& module, const fs::path& code) {
  if (!S_ISREG(module.st_mode)) return false;
  if (geteuid() != 0) return true;
  const mode_t othersWrite = module.st_mode & (S_IWGRP | S_IWOTH);
  if (module.st_uid == 0 && othersWrite == 0) return true;
  struct stat own = {};
  return stat(code.c_str(), &own) == 0 && module.st_uid == own.st_uid && module.st_gid == own.st_gid &&
         (othersWrite & ~own.st_mode) == 0;
}

SignersUnitEntry* load() {
  std::string reason = "not found";
  const fs::path code = fileOfThisCode();
  for (const fs::path& place : modulePlaces(code)) {
    const Descriptor file(open(place.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
      if (errno != ENOENT && errno != ENOTDIR) reason = SystemError{errno, place.string()}.text();
      continue;
    }
    if (!isTrusted(status, code)) {
      reason = place.string() + ": other users can write to it";
      continue;
    }
    // Loads through the descriptor, so that the file is the one that was checked.
    void* const module = dlopen(("/proc/self/fd/" + std::to_string(file.get())).c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const entry = module == nullptr ? nullptr : dlsym(module, kSignersUnitEntry);
    if (entry != nullptr) return reinterpret_cast<SignersUnitEntry*>(entry);
    const char* const error = dlerror();
    reason = place.string() + ": " + (error == nullptr ? "cannot be loaded" : error);
  }
  syslog(LOG_ERR, "Vorlix: no signature can be checked without %s: %s", kModule, reason.c_str());
  return nullptr;
}

}  // namespace

std::optional<std::string> signersUnit(const std::string& signature, int file, const fs::path& anchors) {
  static SignersUnitEntry* const entry = load();  // stays loaded, because OpenSSL cannot be unloaded safely
  if (entry == nullptr) return std::nullopt;
  std::array<char, kLongestUnit> unit;
  const long length = entry(signature.c_str(), file, anchors.c_str(), unit.data(), unit.size());
  if (length < 0) return std::nullopt;
  return std::string(unit.data(), static_cast<size_t>(length));
}

}  // namespace vorlix
