// SPDX-License-Identifier: Apache-2.0
//
// The tool that reports System Integrity Protection, as tests put another in its place.
#pragma once

#include <string>

namespace vorlix {

/// Path of the system's status tool. It is never looked for anywhere else.
inline constexpr const char* kStatusToolPath = "/usr/bin/csrutil";

/// Replaces the path, for tests that bring a tool of their own. An empty path restores the default.
void setStatusToolPath(std::string path);

}  // namespace vorlix
