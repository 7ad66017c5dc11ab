// SPDX-License-Identifier: Apache-2.0
//
// Texts without regard to case. What is looked for is ASCII, so the case of other letters does not matter.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace vorlix {

inline std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter; });
  return lower;
}

inline bool containsInAnyCase(std::string_view text, std::string_view part) {
  return lowerCase(text).find(lowerCase(part)) != std::string::npos;
}

}  // namespace vorlix
