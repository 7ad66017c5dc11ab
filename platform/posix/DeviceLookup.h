// SPDX-License-Identifier: Apache-2.0
//
// The rules for device names, which are the same on every system. Each system knows how to find a node and its slices.
#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

#include <Vorlix/platform/SliceName.h>

namespace vorlix {

/// Returns "/dev/disk0" for "/dev//dev/disk0", and "/home/me/mac.img" for "/dev//home/me/mac.img". The BSD name of an
/// image file is its absolute path, and callers put "/dev/" before BSD names, some of them twice.
inline std::string withoutDeviceFolders(std::string_view name) {
  constexpr std::string_view kDeviceFolder = "/dev/";
  constexpr std::string_view kPrefixedPath = "/dev//";
  while (name.starts_with(kPrefixedPath)) name.remove_prefix(kDeviceFolder.size());
  return std::string(name);
}

/// Finds a path that exists, or `<whole>s<N>` if `<whole>` exists.
/// @param existing  returns the location of a device or an image file; otherwise absent, with `errno` set.
/// @param sliceOf   returns slice `number` of such a location; absent if it has no slices.
/// @return absent, with `errno` set, if neither exists.
template <typename Location>
std::optional<Location> locatePath(const std::string& path, std::optional<Location> (*existing)(const std::string&),
                                   std::optional<Location> (*sliceOf)(const Location&, uint32_t)) {
  std::optional<Location> found = existing(path);
  if (found || errno != ENOENT) return found;
  const std::optional<SliceName> name = parseSliceName(path);
  if (!name) {
    errno = ENOENT;
    return std::nullopt;
  }
  found = existing(name->whole);
  if (!found) return std::nullopt;
  found = sliceOf(*found, name->number);
  if (!found) errno = ENOENT;
  return found;
}

/// Finds a path, or a name without a slash in /dev.
template <typename Location>
std::optional<Location> locateName(const std::string& name, std::optional<Location> (*existing)(const std::string&),
                                   std::optional<Location> (*sliceOf)(const Location&, uint32_t)) {
  const std::string path = withoutDeviceFolders(name);
  std::optional<Location> found = locatePath(path, existing, sliceOf);
  if (found || errno != ENOENT || path.empty() || path.find('/') != std::string::npos) return found;
  return locatePath("/dev/" + path, existing, sliceOf);
}

}  // namespace vorlix
