// SPDX-License-Identifier: Apache-2.0
#include "DeviceNames.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

#include "ImageFiles.h"
#include "Sysfs.h"
#include "platform/posix/DeviceLookup.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

std::string nodeOf(const std::string& kernelName) {
  return "/dev/" + withSlashes(kernelName);
}

// The kernel's node of slice `number`, if the kernel knows that slice.
std::optional<std::string> kernelSlice(dev_t whole, uint32_t number) {
  const std::optional<fs::path> folder = sysfsFolder(whole);
  if (!folder) return std::nullopt;
  const std::string disk = folder->filename();
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(*folder, error)) {
    const std::string name = entry.path().filename();
    // The name of a slice is that of its disk with a number.
    if (name.starts_with(disk) && readWholeNumber(entry.path() / "partition") == number) return nodeOf(name);
  }
  return std::nullopt;
}

DeviceLocation locateBlockDevice(const std::string& path, dev_t device) {
  const std::optional<fs::path> folder = sysfsFolder(device);
  const std::optional<uint64_t> slice = folder ? readWholeNumber(*folder / "partition") : std::nullopt;
  if (!slice || *slice > std::numeric_limits<uint32_t>::max()) return {path, path, 0, false, ""};
  return {nodeOf(folder->parent_path().filename()), path, static_cast<uint32_t>(*slice), false, ""};
}

std::optional<DeviceLocation> locateExisting(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) {
    std::optional<std::string> name = lastingImageName(path, status);
    if (!name) return std::nullopt;
    return DeviceLocation{path, path, 0, true, *std::move(name)};
  }
  if (S_ISBLK(status.st_mode)) return locateBlockDevice(path, status.st_rdev);
  errno = S_ISDIR(status.st_mode) ? EISDIR : ENOTBLK;
  return std::nullopt;
}

std::optional<DeviceLocation> sliceOf(const DeviceLocation& whole, uint32_t number) {
  if (whole.slice != 0) return std::nullopt;  // a slice has no slices
  DeviceLocation slice = whole;
  slice.slice = number;
  struct stat status = {};
  if (!slice.isImage && stat(slice.whole.c_str(), &status) == 0) {
    if (std::optional<std::string> node = kernelSlice(status.st_rdev, number)) slice.node = *std::move(node);
  }
  return slice;
}

}  // namespace

std::optional<DeviceLocation> locateDevice(const std::string& name) {
  std::optional<DeviceLocation> found = locateName(name, locateExisting, sliceOf);
  if (found && found->isImage) noteImageFile(found->imageName);
  return found;
}

}  // namespace vorlix
