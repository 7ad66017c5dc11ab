// SPDX-License-Identifier: Apache-2.0
//
// Property lists as hosts ship them among their resources.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// The texts in the array that a property list, XML or binary, has as its root; other items are left out. Absent if the
/// bytes are something else.
std::optional<std::vector<std::string>> textsInPropertyList(const std::string& bytes);

}  // namespace vorlix
