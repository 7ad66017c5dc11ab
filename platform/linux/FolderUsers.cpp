// SPDX-License-Identifier: Apache-2.0
#include "FolderUsers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <Vorlix/platform/Descriptor.h>
#include "MirrorWalk.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

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

}  // namespace

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

Refusal checkNoFileOpen(const std::string& folder) {
  return forEachBelow(folder, [&](const std::string& path) -> Refusal {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return std::nullopt;
    // If a process opens the file during the lease, the kernel sends a signal. The usual one would end this process.
    if (fcntl(file.get(), F_SETSIG, SIGURG) != 0) return std::nullopt;
    // The kernel grants a write lease only if nobody else has the file open.
    if (fcntl(file.get(), F_SETLEASE, F_WRLCK) == 0) {
      fcntl(file.get(), F_SETLEASE, F_UNLCK);
      return std::nullopt;
    }
    if (errno != EAGAIN) return std::nullopt;
    return Dissenter{kDissentBusy,
                     path.substr(folder.size()) + " is in use by a process that cannot be seen from here"};
  });
}

}  // namespace vorlix
