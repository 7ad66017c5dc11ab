// SPDX-License-Identifier: Apache-2.0
#include "BlockDevices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "ImageFiles.h"
#include "platform/posix/DeviceLookup.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

fs::path sysfsFolder(dev_t device) {
  return "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::optional<uint32_t> readNumber(const fs::path& path) {
  std::ifstream file(path);
  uint32_t number = 0;
  if (!(file >> number)) return std::nullopt;
  return number;
}

// Kernel names write the "/" of a node in a sub-folder as "!".
std::string nodeOf(std::string kernelName) {
  std::replace(kernelName.begin(), kernelName.end(), '!', '/');
  return "/dev/" + kernelName;
}

// The kernel's node of slice `number`, if the kernel knows that slice.
std::optional<std::string> kernelSlice(dev_t whole, uint32_t number) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(sysfsFolder(whole), error)) {
    if (readNumber(entry.path() / "partition") == number) return nodeOf(entry.path().filename());
  }
  return std::nullopt;
}

DeviceLocation locateBlockDevice(const std::string& path, dev_t device) {
  std::error_code error;
  const fs::path folder = fs::canonical(sysfsFolder(device), error);
  const std::optional<uint32_t> slice = error ? std::nullopt : readNumber(folder / "partition");
  if (!slice) return {path, path, 0, false};
  return {nodeOf(folder.parent_path().filename()), path, *slice, false};
}

// An image is known by its absolute path from now on. Where that cannot be followed, as below a folder that this user
// may be in but not pass through, nothing that comes later would find it.
bool isReachedByAbsolutePath(const std::string& path, const struct stat& image) {
  struct stat status = {};
  if (path.starts_with('/')) return true;
  if (stat(imageBSDName(path).c_str(), &status) != 0) return false;
  if (status.st_dev == image.st_dev && status.st_ino == image.st_ino) return true;
  errno = ESTALE;
  return false;
}

std::optional<DeviceLocation> locateExisting(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) {
    if (!isReachedByAbsolutePath(path, status)) return std::nullopt;
    return DeviceLocation{path, path, 0, true};
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
  if (found && found->isImage) noteImageFile(found->whole);
  return found;
}

std::optional<uint32_t> kernelBlockSize(dev_t device) {
  std::error_code error;
  fs::path folder = fs::canonical(sysfsFolder(device), error);
  if (error) return std::nullopt;
  if (fs::exists(folder / "partition", error)) folder = folder.parent_path();
  return readNumber(folder / "queue" / "logical_block_size");
}

}  // namespace vorlix
