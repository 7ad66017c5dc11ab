// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

namespace vorlix {

/// The file that the library's code was loaded from: the executable, or the shared library. Empty where the kernel does
/// not tell.
std::filesystem::path fileOfThisCode();

}  // namespace vorlix
