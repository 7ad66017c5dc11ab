// SPDX-License-Identifier: Apache-2.0
//
// The block devices that the kernel knows, from sysfs, from the disks themselves where they can be opened, and from
// udev's database where they cannot.
//
// `root` stands before every path that is read, so that a captured tree can take the place of the machine.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "DiskFacts.h"

namespace vorlix {

/// All whole disks, in the order of their names. Devices that the kernel hides, and those without hardware and without
/// a size, such as a loop device that is not in use, are left out.
std::vector<DiskFacts> kernelDisks(const std::string& root);

/// The whole disk that is called `name` ("sda"), or has a slice of that name: the kernel's ("sda1", "nvme0n1p1") or
/// `<whole>s<N>`.
std::optional<DiskFacts> kernelDiskOf(const std::string& root, const std::string& name);

/// Whether the medium that the block device `number` is on rotates. Absent where that is not known, as for a file
/// system without a device.
std::optional<bool> isRotational(const std::string& root, dev_t number);

}  // namespace vorlix
