// SPDX-License-Identifier: Apache-2.0
#include "DeviceFacts.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

#include "ImageFiles.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

std::optional<fs::path> sysfsFolderOf(const std::string& node) {
  struct stat status = {};
  if (stat(node.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
  return sysfsFolder(status.st_rdev);
}

std::string nameOf(const fs::path& folder) {
  return withSlashes(folder.filename());
}

// Some buses report whether the device at a port is built in.
std::optional<bool> internalByPath(const fs::path& folder) {
  const std::string path = folder.string();
  if (path.rfind("/sys/devices/virtual/block/loop", 0) == 0) return false;
  if (path.rfind("/sys/devices/virtual/", 0) == 0) return std::nullopt;  // the disks below it are not examined
  for (fs::path above = folder.parent_path(); above.string().size() > std::string_view("/sys/devices").size();
       above = above.parent_path()) {
    const std::optional<std::string> place = readTrimmed(above / "removable");
    if (place == "removable") return false;
    if (place == "fixed") return true;
  }
  return path.find("/usb") == std::string::npos && path.find("/fw") == std::string::npos;
}

std::optional<int64_t> numberFrom(std::string_view digits) {
  int64_t number = 0;
  const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || stop == digits.data()) return std::nullopt;
  return number;
}

}  // namespace

std::optional<std::string> bsdNameOf(const DeviceLocation& location) {
  std::string name;
  if (location.isImage) {
    name = location.imageName;
  } else {
    const std::optional<fs::path> folder = sysfsFolderOf(location.node);
    if (!folder) return std::nullopt;
    name = nameOf(*folder);
  }
  return location.hasOwnNode() ? name : name + "s" + std::to_string(location.slice);
}

std::optional<std::string> nodeOfDevice(dev_t device) {
  const std::optional<fs::path> folder = sysfsFolder(device);
  if (!folder) return std::nullopt;
  return "/dev/" + nameOf(*folder);
}

std::optional<uint32_t> kernelBlockSize(dev_t device) {
  const std::optional<fs::path> folder = sysfsFolderOfDisk(device);
  const auto size = folder ? readWholeNumber(*folder / "queue" / "logical_block_size") : std::nullopt;
  if (!size || *size > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(*size);
}

bool isReadOnlyMedium(const DeviceLocation& location) {
  if (location.isImage) return access(location.whole.c_str(), W_OK) != 0;
  const std::optional<fs::path> folder = sysfsFolderOf(location.node);
  return folder && readFlag(*folder / "ro") == true;
}

std::optional<bool> isInternalDevice(const DeviceLocation& location) {
  if (location.isImage) return false;
  const std::optional<fs::path> folder = sysfsFolderOf(location.whole);
  return folder ? internalByPath(*folder) : std::nullopt;
}

std::optional<int64_t> unitOfKernelName(const std::string& name) {
  for (const std::string_view letters : {"sd", "vd", "hd", "xvd"}) {
    if (name.rfind(letters, 0) != 0 || name.size() == letters.size()) continue;
    int64_t unit = 0;  // a, b, ... z, aa, ab: a number with base 26 and no zero
    for (const char letter : name.substr(letters.size())) {
      if (letter < 'a' || letter > 'z' || unit > 1000000) return std::nullopt;
      unit = unit * 26 + (letter - 'a' + 1);
    }
    return unit - 1;
  }
  const size_t digit = name.find_first_of("0123456789");
  if (digit == std::string::npos) return std::nullopt;
  return numberFrom(std::string_view(name).substr(digit));
}

}  // namespace vorlix
