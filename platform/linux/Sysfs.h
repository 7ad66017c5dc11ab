// SPDX-License-Identifier: Apache-2.0
//
// What the kernel and udev tell of block devices in folders and small text files. `root` stands before the paths, so
// that a captured tree can take the place of the machine.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace vorlix {

/// The unit of places and sizes in sysfs and in udev's database, whatever the block size of the disk.
inline constexpr uint64_t kSysfsSector = 512;

/// A device's number as it stands in names and files there: "8:1".
std::string deviceNumberText(dev_t device);

/// The link to a device's folder, "/sys/dev/block/8:1". Files in the folder can be read by way of it.
std::filesystem::path sysfsLink(dev_t device, const std::string& root = "");

/// The folder itself, which bears the kernel's name of the device and lies, for a partition, in its disk's folder.
/// Absent for a number that no device has.
std::optional<std::filesystem::path> sysfsFolder(dev_t device, const std::string& root = "");

/// The folder of the whole disk: the device's own, or for a partition the one above.
std::optional<std::filesystem::path> sysfsFolderOfDisk(dev_t device, const std::string& root = "");

/// Kernel names write the "/" of a node in a sub-folder of /dev as "!": "cciss!c0d0" is /dev/cciss/c0d0.
std::string withSlashes(std::string kernelName);
std::string withoutSlashes(std::string bsdName);

/// A whole file. Absent where it cannot be read.
std::optional<std::string> readText(const std::filesystem::path& path);

/// A file's text without the spaces, line ends and NULs at its end. Absent where it cannot be read or nothing is left.
std::optional<std::string> readTrimmed(const std::filesystem::path& path);

/// A whole file that is one decimal number. Absent for anything else.
std::optional<uint64_t> readWholeNumber(const std::filesystem::path& path);

/// A file that holds 0 or 1. Absent for anything else.
std::optional<bool> readFlag(const std::filesystem::path& path);

/// A file that holds a device's number ("8:1"). Absent for anything else.
std::optional<dev_t> readDeviceNumber(const std::filesystem::path& path);

/// The properties of a device in udev's database: the lines "E:KEY=value" of its record. Empty without a record.
std::map<std::string, std::string> readUdevRecord(const std::string& deviceNumber, const std::string& root = "");

}  // namespace vorlix
