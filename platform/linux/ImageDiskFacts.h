// SPDX-License-Identifier: Apache-2.0
//
// What the registry shows of a disk-image file.
#pragma once

#include <optional>
#include <string>

#include "DiskFacts.h"

namespace vorlix {

/// Returns the disk in an image file. Its name is the absolute path of the file. It has no slices if the file cannot be
/// read. Its medium type is that of the disk that holds the file. `root` is as in KernelDisks.h. Absent if there is no
/// such file.
std::optional<DiskFacts> imageDiskFacts(const std::string& root, const std::string& path);

}  // namespace vorlix
