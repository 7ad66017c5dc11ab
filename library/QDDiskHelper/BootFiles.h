// SPDX-License-Identifier: Apache-2.0
//
// What tells that an operating system on a volume can be started.
#pragma once

#include <array>
#include <string>

class QDVolume;

namespace vorlix {

/// The paths of which one has to exist, in the order in which they are looked for. Of a volume without a mount point
/// they are relative to the working folder.
std::array<std::string, 4> bootFilePaths(const QDVolume& volume);

}  // namespace vorlix
