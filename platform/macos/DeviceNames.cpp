// SPDX-License-Identifier: Apache-2.0
#include "DeviceNames.h"

#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "platform/posix/DeviceLookup.h"

namespace vorlix {
namespace {

constexpr std::string_view kDeviceFolder = "/dev/";
constexpr std::string_view kRawDisk = "rdisk";

std::optional<DeviceLocation> locateExisting(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) return DeviceLocation{path, 0, true};
  if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) return DeviceLocation{path, 0, false};
  errno = S_ISDIR(status.st_mode) ? EISDIR : ENOTBLK;
  return std::nullopt;
}

// A device's slices have nodes of their own.
std::optional<DeviceLocation> sliceOf(const DeviceLocation& whole, uint32_t number) {
  if (!whole.isImage) return std::nullopt;
  DeviceLocation slice = whole;
  slice.slice = number;
  return slice;
}

// Drivers outside the kernel mount from names such as "msdos://disk4s1/NO NAME". The framework parses them likewise.
std::string deviceMountedFrom(const std::string& name) {
  constexpr std::string_view kBetween = "://disk";
  const size_t place = name.find(kBetween);
  if (place == std::string::npos || place == 0 || name.find('/') != place + 1) return name;
  const size_t start = place + std::string_view("://").size();
  return name.substr(start, name.find('/', start) - start);
}

}  // namespace

std::optional<DeviceLocation> locateDevice(const std::string& name) {
  return locateName(name, locateExisting, sliceOf);
}

std::optional<std::string> arbitrationName(const std::string& name) {
  std::string bare = withoutDeviceFolders(name);
  if (bare.starts_with(kDeviceFolder)) bare.erase(0, kDeviceFolder.size());
  bare = deviceMountedFrom(bare);
  if (bare.empty() || bare.find('/') != std::string::npos) return std::nullopt;
  if (bare.starts_with(kRawDisk)) bare.erase(0, 1);
  return bare;
}

}  // namespace vorlix
