// SPDX-License-Identifier: Apache-2.0
//
// What the kernel and udev report about block devices in folders and small text files. `root` is put before the paths,
// so that a captured tree can replace the machine.
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

/// Returns a device's number as names and files there have it: "8:1".
std::string deviceNumberText(dev_t device);

/// Returns the link to a device's folder, "/sys/dev/block/8:1". Files in the folder can be read through it.
std::filesystem::path sysfsLink(dev_t device, const std::string& root = "");

/// Returns the folder itself. Its name is the kernel's name of the device; that of a partition is in its disk's folder.
/// Absent if no device has that number.
std::optional<std::filesystem::path> sysfsFolder(dev_t device, const std::string& root = "");

/// Returns the folder of the whole disk: that of the device, or the one above for a partition.
std::optional<std::filesystem::path> sysfsFolderOfDisk(dev_t device, const std::string& root = "");

/// Convert between kernel names and paths in /dev. Kernel names have "!" instead of "/": "cciss!c0d0" is
/// /dev/cciss/c0d0.
std::string withSlashes(std::string kernelName);
std::string withoutSlashes(std::string bsdName);

/// Returns the content of a file. Absent if it cannot be read.
std::optional<std::string> readText(const std::filesystem::path& path);

/// Returns the content of a file without spaces, line ends and NULs at its end. Absent if it is empty then or cannot be
/// read.
std::optional<std::string> readTrimmed(const std::filesystem::path& path);

/// Returns the decimal number that is the whole content of a file. Absent for other content.
std::optional<uint64_t> readWholeNumber(const std::filesystem::path& path);

/// Returns the content of a file that contains 0 or 1. Absent for other content.
std::optional<bool> readFlag(const std::filesystem::path& path);

/// Returns the device number ("8:1") in a file. Absent for other content.
std::optional<dev_t> readDeviceNumber(const std::filesystem::path& path);

/// Returns the properties of a device in udev's database: the lines "E:KEY=value" of its record. Empty if it has no
/// record.
std::map<std::string, std::string> readUdevRecord(const std::string& deviceNumber, const std::string& root = "");

}  // namespace vorlix
