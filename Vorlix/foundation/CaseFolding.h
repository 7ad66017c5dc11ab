// SPDX-License-Identifier: Apache-2.0
/// @file
/// Comparing texts without regard to the case of ASCII letters.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace vorlix {

/// Returns the text with A to Z in lower case. Other bytes do not change.
inline std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter; });
  return lower;
}

/// Returns whether `text` contains `part`.
inline bool containsInAnyCase(std::string_view text, std::string_view part) {
  return lowerCase(text).find(lowerCase(part)) != std::string::npos;
}

}  // namespace vorlix
