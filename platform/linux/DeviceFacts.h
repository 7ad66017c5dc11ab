// SPDX-License-Identifier: Apache-2.0
//
// What sysfs reports for block devices, and the file system for disk-image files. This needs no privilege.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "DeviceNames.h"

namespace vorlix {

/// Returns the BSD name, such as "sda1" or "/home/me/mac.imgs1": the kernel's name of the device or the absolute path
/// of the image file, followed by "s" and the number for a slice without its own node.
std::optional<std::string> bsdNameOf(const DeviceLocation& location);

/// Returns the node of a block device by its number.
std::optional<std::string> nodeOfDevice(dev_t device);

/// Returns the logical block size that the kernel has for a block device. Absent if it has none.
std::optional<uint32_t> kernelBlockSize(dev_t device);

/// Returns whether the medium cannot be written: according to the kernel, or for an image file by this user.
bool isReadOnlyMedium(const DeviceLocation& location);

/// Returns whether the disk is inside the machine. Absent if its bus does not report that.
std::optional<bool> isInternalDevice(const DeviceLocation& location);

/// Returns the unit number in a kernel name: 0 for sda, 1 for sdb, n for nvmen or loopn. Absent for other forms.
std::optional<int64_t> unitOfKernelName(const std::string& name);

}  // namespace vorlix
