// SPDX-License-Identifier: Apache-2.0
//
// The device manager's messages, and texts in them.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// Gives a line to the shared instance's delegate, whichever instance has something to say.
void tellDelegate(const std::string& line);

/// A text as messages and commands show it: an absent one is "(null)".
std::string shown(const std::optional<std::string>& text);

}  // namespace vorlix
