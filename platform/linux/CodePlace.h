// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

namespace vorlix {

/// Returns the file that the library's code was loaded from: the executable or the shared library. Empty if the kernel
/// does not report it.
std::filesystem::path fileOfThisCode();

}  // namespace vorlix
