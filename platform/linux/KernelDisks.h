// SPDX-License-Identifier: Apache-2.0
//
// The block devices that the kernel knows, from sysfs and from the disks, or from udev's database if a disk cannot be
// opened.
//
// `root` is put before every path, so that a captured tree can replace the machine.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "DiskFacts.h"

namespace vorlix {

/// Returns all whole disks, sorted by name. Leaves out devices that the kernel hides, and devices with neither hardware
/// nor a size, such as unused loop devices.
std::vector<DiskFacts> kernelDisks(const std::string& root);

/// Returns the whole disk called `name` ("sda"), or that has a slice of that name: the kernel's ("sda1", "nvme0n1p1")
/// or `<whole>s<N>`.
std::optional<DiskFacts> kernelDiskOf(const std::string& root, const std::string& name);

/// Returns whether the medium of the block device `number` rotates. Absent if that is unknown, as for a file system
/// without a device.
std::optional<bool> isRotational(const std::string& root, dev_t number);

}  // namespace vorlix
