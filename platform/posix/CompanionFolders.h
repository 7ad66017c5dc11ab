// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <vector>

namespace vorlix {

/// Returns the folders where an installation has the library's companion programs, the most likely one first.
/// @param code  the file that holds the library's code, a program or the shared library; may be empty.
std::vector<std::filesystem::path> companionFolders(const std::filesystem::path& code);

}  // namespace vorlix
