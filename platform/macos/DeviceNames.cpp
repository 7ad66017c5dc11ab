// SPDX-License-Identifier: Apache-2.0
#include "DeviceNames.h"

#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "../posix/SliceName.h"

namespace vorlix {
namespace {

constexpr std::string_view kDeviceFolder = "/dev/";
constexpr std::string_view kPrefixedPath = "/dev//";
constexpr std::string_view kRawDisk = "rdisk";

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

std::optional<DeviceLocation> locateExisting(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) return DeviceLocation{path, 0, true};
  if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) return DeviceLocation{path, 0, false};
  errno = S_ISDIR(status.st_mode) ? EISDIR : ENOTBLK;
  return std::nullopt;
}

std::optional<DeviceLocation> locatePath(const std::string& path) {
  std::optional<DeviceLocation> found = locateExisting(path);
  if (found || errno != ENOENT) return found;
  const std::optional<SliceName> name = parseSliceName(path);
  if (!name) {
    errno = ENOENT;
    return std::nullopt;
  }
  found = locateExisting(name->whole);
  if (!found) return std::nullopt;
  if (!found->isImage) {  // the system makes a node for every slice that a device has
    errno = ENOENT;
    return std::nullopt;
  }
  found->slice = name->number;
  return found;
}

// An image file's BSD name is its absolute path, and callers put the folder before BSD names, some of them twice.
std::string withoutPrefixes(const std::string& name) {
  std::string_view path = name;
  while (startsWith(path, kPrefixedPath)) path.remove_prefix(kDeviceFolder.size());
  return std::string(path);
}

}  // namespace

std::optional<DeviceLocation> locateDevice(const std::string& name) {
  if (startsWith(name, kPrefixedPath)) return locatePath(withoutPrefixes(name));
  std::optional<DeviceLocation> found = locatePath(name);
  if (found || errno != ENOENT || name.empty() || name.find('/') != std::string::npos) return found;
  return locatePath(std::string(kDeviceFolder) + name);
}

std::optional<std::string> arbitrationName(const std::string& name) {
  std::string bare = withoutPrefixes(name);
  if (startsWith(bare, kDeviceFolder)) bare.erase(0, kDeviceFolder.size());
  if (bare.empty() || bare.find('/') != std::string::npos) return std::nullopt;
  if (startsWith(bare, kRawDisk)) bare.erase(0, 1);
  return bare;
}

}  // namespace vorlix
