// SPDX-License-Identifier: Apache-2.0
//
// What a device's name stands for, by the same rules on every system. How one finds a node, and what a slice of it is,
// the systems say.
#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

#include <Vorlix/platform/SliceName.h>

namespace vorlix {

/// An image file's BSD name is its absolute path, and callers put the devices' folder before BSD names, some of them
/// twice. Of "/dev//dev/disk0" this is "/dev/disk0", of "/dev//home/me/mac.img" the path of that file.
inline std::string withoutDeviceFolders(std::string_view name) {
  constexpr std::string_view kDeviceFolder = "/dev/";
  constexpr std::string_view kPrefixedPath = "/dev//";
  while (name.starts_with(kPrefixedPath)) name.remove_prefix(kDeviceFolder.size());
  return std::string(name);
}

/// A path that exists, or `<whole>s<N>` of one that does.
/// @param existing  gives the location of a path that is a device or an image file; otherwise absent, with errno set.
/// @param sliceOf   gives slice `number` of such a location; absent if it has none.
/// @return absent, with errno set, where there is neither.
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

/// A path, or, without a slash, a name in the devices' folder.
template <typename Location>
std::optional<Location> locateName(const std::string& name, std::optional<Location> (*existing)(const std::string&),
                                   std::optional<Location> (*sliceOf)(const Location&, uint32_t)) {
  const std::string path = withoutDeviceFolders(name);
  std::optional<Location> found = locatePath(path, existing, sliceOf);
  if (found || errno != ENOENT || path.empty() || path.find('/') != std::string::npos) return found;
  return locatePath("/dev/" + path, existing, sliceOf);
}

}  // namespace vorlix
