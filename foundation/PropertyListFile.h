// SPDX-License-Identifier: Apache-2.0
//
// Property lists as hosts ship them among their resources.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// The texts in the array that a property list file, XML or binary, has as its root; other items are left out. Absent
/// if the file cannot be read, is larger than a mebibyte, or is something else.
std::optional<std::vector<std::string>> textsInPropertyListFile(const std::string& path);

}  // namespace vorlix
