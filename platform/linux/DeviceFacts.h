// SPDX-License-Identifier: Apache-2.0
//
// What sysfs tells of block devices, and what the file system tells of disk-image files. No privilege is needed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "DeviceNames.h"

namespace vorlix {

/// "sda1", "/home/me/mac.imgs1": the kernel's name of the device, or the absolute path of the image file, followed by
/// "s" and the number for a slice without a node of its own.
std::optional<std::string> bsdNameOf(const DeviceLocation& location);

/// Node of a block device by its number.
std::optional<std::string> nodeOfDevice(dev_t device);

/// Returns the logical block size that the kernel has for a block device. Absent if it has none.
std::optional<uint32_t> kernelBlockSize(dev_t device);

/// The medium cannot be written, by the kernel's account or for this user.
bool isReadOnlyMedium(const DeviceLocation& location);

/// The disk is in the machine's case, as far as its bus tells. Absent where it does not.
std::optional<bool> isInternalDevice(const DeviceLocation& location);

/// The unit in a kernel name: 0 for sda, 1 for sdb, n of nvmen or loopn. Absent for a name of another form.
std::optional<int64_t> unitOfKernelName(const std::string& name);

}  // namespace vorlix
