// SPDX-License-Identifier: Apache-2.0
//
// What tells that an operating system on a volume can be started.
#pragma once

#include <array>
#include <string>

namespace vorlix {

/// The paths of which one has to exist, in the order in which they are looked for.
/// @param root  mount point of the volume; empty for paths relative to the working folder.
std::array<std::string, 4> bootFilePaths(const std::string& root);

}  // namespace vorlix
