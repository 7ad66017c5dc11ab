// SPDX-License-Identifier: Apache-2.0
//
// A disk-image file as a disk of the registry.
#pragma once

#include <optional>
#include <string>

#include "DiskFacts.h"

namespace vorlix {

/// The disk in an image file, with the file's absolute path as its name. What cannot be read leaves the disk without
/// slices. The medium is that of the disk which holds the file; `root` is as in KernelDisks.h. Absent when there is no
/// such file.
std::optional<DiskFacts> imageDiskFacts(const std::string& root, const std::string& path);

}  // namespace vorlix
