// SPDX-License-Identifier: Apache-2.0
//
// Messages of the device manager.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// Sends a line to the delegate of the shared instance, even for other instances.
void tellDelegate(const std::string& line);

/// Returns a text as messages and commands show it: "(null)" if it is absent.
std::string shown(const std::optional<std::string>& text);

}  // namespace vorlix
