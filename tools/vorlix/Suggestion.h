// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

/// Returns which of the words somebody probably meant who typed another one; absent if none is near. Near are words
/// with one or two letters too many, missing, wrong or exchanged, and longer words that begin with what was typed.
std::optional<std::string> suggestionFor(const std::string& typed, const std::vector<std::string>& words);

}  // namespace vorlix::tool
