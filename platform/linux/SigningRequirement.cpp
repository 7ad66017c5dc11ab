// SPDX-License-Identifier: Apache-2.0
#include "SigningRequirement.h"

#include <vector>

namespace vorlix {
namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isWordCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// Splits a text into words, quoted texts and single other characters. A quoted text keeps its opening quote, which
// distinguishes it from a word.
std::optional<std::vector<std::string>> tokensOf(std::string_view text) {
  std::vector<std::string> tokens;
  while (!text.empty()) {
    size_t length = 1;
    if (isBlank(text[0])) {
      text.remove_prefix(1);
      continue;
    }
    if (text[0] == '"') {
      const size_t end = text.find_first_of("\"\\", 1);
      if (end == std::string_view::npos || text[end] != '"') return std::nullopt;
      tokens.emplace_back(text.substr(0, end));
      length = end + 1;
    } else {
      if (isWordCharacter(text[0])) {
        while (length < text.size() && isWordCharacter(text[length])) ++length;
      }
      tokens.emplace_back(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  return tokens;
}

}  // namespace

std::optional<SigningRequirement> parseSigningRequirement(std::string_view text) {
  const std::vector<std::string> expected = {"anchor", "apple",   "generic", "and", "certificate", "leaf",
                                             "[",      "subject", ".",       "OU",  "]",           "="};
  auto tokens = tokensOf(text);
  if (!tokens || tokens->size() != expected.size() + 1) return std::nullopt;
  std::string unit = std::move(tokens->back());
  tokens->pop_back();
  if (*tokens != expected) return std::nullopt;
  if (unit[0] == '"') {
    unit.erase(0, 1);
  } else if (!isWordCharacter(unit[0])) {
    return std::nullopt;
  }
  if (unit.empty()) return std::nullopt;
  return SigningRequirement{std::move(unit)};
}

}  // namespace vorlix
