// SPDX-License-Identifier: Apache-2.0
#include "MirrorTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string_view>
#include <system_error>

#include <Vorlix/platform/Descriptor.h>
#include "FatNames.h"
#include "VolumeProbe.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

Refusal addEntry(const std::string& path, const std::string& name, MirrorTree& tree) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return dissenterFor(errno, path);
  if (S_ISDIR(status.st_mode)) {
    tree[name] = {true, 0, 0, 0, 0};
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    return Dissenter{kDissentUnsupported, path + " is neither a file nor a folder; a FAT volume cannot hold it"};
  }
  if (status.st_size > std::numeric_limits<uint32_t>::max()) {
    return Dissenter{kDissentUnsupported, path + " is too large for a FAT volume"};
  }
  tree[name] = {false, static_cast<uint64_t>(status.st_size), nanoseconds(status.st_mtim), nanoseconds(status.st_ctim),
                status.st_ino};
  return std::nullopt;
}

// Names of devices, with or without an extension, that no file can have.
bool isReserved(const std::string& name) {
  const std::string stem = foldedFatName(name.substr(0, name.find('.')));
  static const std::set<std::string> plain = {"CON", "PRN", "AUX", "NUL", "CLOCK$"};
  if (plain.count(stem) != 0) return true;
  const bool isPort = stem.size() == 4 && (stem.rfind("COM", 0) == 0 || stem.rfind("LPT", 0) == 0);
  return isPort && stem[3] >= '1' && stem[3] <= '9';
}

bool isInside(const std::string& path, const std::string& folder) {
  return path == folder || path.rfind(folder + "/", 0) == 0;
}

bool linkLeadsInside(const fs::path& link, const std::string& folder) {
  std::error_code error;
  const std::string target = fs::read_symlink(link, error).string();
  return !error && isInside(target, folder);
}

bool mapsInside(const fs::path& process, const std::string& folder) {
  std::ifstream maps(process / "maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t path = line.find('/');
    if (path != std::string::npos && isInside(line.substr(path), folder)) return true;
  }
  return false;
}

bool usesFolder(const fs::path& process, const std::string& folder) {
  if (linkLeadsInside(process / "cwd", folder) || linkLeadsInside(process / "root", folder)) return true;
  std::error_code error;
  for (const fs::directory_entry& descriptor : fs::directory_iterator(process / "fd", error)) {
    if (linkLeadsInside(descriptor.path(), folder)) return true;
  }
  return mapsInside(process, folder);
}

template <typename Function>
Refusal forEachBelow(const std::string& folder, Function function) {
  std::error_code error;
  fs::recursive_directory_iterator entry(folder, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    if (Refusal refusal = function(entry->path().string())) return refusal;
  }
  if (error) return dissenterFor(error.value(), folder);
  return std::nullopt;
}

}  // namespace

Refusal scanMirror(const std::string& folder, MirrorTree& tree) {
  tree.clear();
  return forEachBelow(folder,
                      [&](const std::string& path) { return addEntry(path, path.substr(folder.size()), tree); });
}

Refusal setMirrorModes(const std::string& folder, bool readOnly) {
  const Refusal refusal = forEachBelow(folder, [&](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return dissenterFor(errno, path);
    // Folders of a mirror that is only read are closed when all is read.
    const mode_t mode = S_ISDIR(status.st_mode) ? 0700 : readOnly ? 0400 : 0600;
    if (chmod(path.c_str(), mode) != 0) return dissenterFor(errno, path);
    return std::nullopt;
  });
  if (refusal || !readOnly) return refusal;
  return forEachBelow(folder, [&](const std::string& path) -> Refusal {
    std::error_code error;
    if (fs::is_directory(path, error) && chmod(path.c_str(), 0500) != 0) return dissenterFor(errno, path);
    return std::nullopt;
  });
}

Refusal checkFatName(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const auto refuse = [&](const std::string& why) {
    return Dissenter{kDissentUnsupported, path + " cannot be written to a FAT volume: " + why};
  };
  if (validText(name) != name) return refuse("its name is not UTF-8");
  size_t units = 0;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7F || std::strchr("\"*/:<>?\\|", character) != nullptr) {
      return refuse("its name has a character that is not allowed there");
    }
    if (byte >= 0xF0) return refuse("its name has a character outside the basic plane");
    if ((byte & 0xC0U) != 0x80U) ++units;
  }
  if (units > kLongestFatName) return refuse("its name is too long");
  if (name.back() == '.' || name.back() == ' ') return refuse("its name ends in a dot or a space");
  if (isReserved(name)) return refuse("its name is that of a device");
  return std::nullopt;
}

Refusal checkFatCase(const MirrorTree& tree) {
  std::map<std::string, std::string> seen;
  for (const auto& [path, entry] : tree) {
    const auto [before, isNew] = seen.emplace(foldedFatName(path), path);
    if (isNew) continue;
    return Dissenter{kDissentUnsupported,
                     path + " and " + before->second + " are the same name on a FAT volume; rename one of them"};
  }
  return std::nullopt;
}

Refusal checkNoFileOpen(const std::string& folder) {
  return forEachBelow(folder, [&](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return std::nullopt;
    // Whoever opens the file before the lease is given back makes the kernel send a signal: not the one that ends
    // processes.
    if (fcntl(file.get(), F_SETSIG, SIGURG) != 0) return std::nullopt;
    // The kernel grants a lease for writing only on a file that nobody else has open.
    if (fcntl(file.get(), F_SETLEASE, F_WRLCK) == 0) {
      fcntl(file.get(), F_SETLEASE, F_UNLCK);
      return std::nullopt;
    }
    if (errno != EAGAIN) return std::nullopt;
    return Dissenter{kDissentBusy,
                     path.substr(folder.size()) + " is in use by a process that cannot be seen from here"};
  });
}

Refusal removeMirrorTree(const std::string& folder) {
  std::error_code error;
  chmod(folder.c_str(), 0700);
  static_cast<void>(forEachBelow(folder, [](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) chmod(path.c_str(), 0700);
    return std::nullopt;
  }));
  fs::remove_all(folder, error);
  if (error) return dissenterFor(error.value(), folder);
  return std::nullopt;
}

std::string userOfFolder(const std::string& folder) {
  std::error_code error;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
    const std::string number = process.path().filename().string();
    if (!std::all_of(number.begin(), number.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    if (!usesFolder(process.path(), folder)) continue;
    std::string program;
    std::ifstream(process.path() / "comm") >> program;
    return "process " + number + " (" + program + ")";
  }
  return "";
}

}  // namespace vorlix
