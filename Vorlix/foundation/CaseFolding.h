// SPDX-License-Identifier: Apache-2.0
/// @file
/// Texts without regard to case, ASCII letters only.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace vorlix {

/// The text with A to Z in lower case; other bytes stay as they are.
inline std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter; });
  return lower;
}

/// Returns whether `part` stands anywhere in `text`.
inline bool containsInAnyCase(std::string_view text, std::string_view part) {
  return lowerCase(text).find(lowerCase(part)) != std::string::npos;
}

}  // namespace vorlix
