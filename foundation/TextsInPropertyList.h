// SPDX-License-Identifier: Apache-2.0
//
// Reading property lists among the resources of hosts.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// Returns the texts in the array at the root of a property list, XML or binary. Other items are ignored. Absent if the
/// bytes are not such a property list.
std::optional<std::vector<std::string>> textsInPropertyList(const std::string& bytes);

}  // namespace vorlix
