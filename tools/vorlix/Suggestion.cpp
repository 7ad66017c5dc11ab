// SPDX-License-Identifier: Apache-2.0
#include "Suggestion.h"

#include <algorithm>
#include <cstddef>

namespace vorlix::tool {
namespace {

constexpr size_t kLongestTyped = 64;

// How many letters must be added, removed, replaced or exchanged with their neighbours.
size_t distance(const std::string& from, const std::string& to) {
  std::vector<std::vector<size_t>> table(from.size() + 1, std::vector<size_t>(to.size() + 1));
  for (size_t i = 0; i <= from.size(); ++i) table[i][0] = i;
  for (size_t j = 0; j <= to.size(); ++j) table[0][j] = j;
  for (size_t i = 1; i <= from.size(); ++i) {
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t replaced = table[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      table[i][j] = std::min({replaced, table[i - 1][j] + 1, table[i][j - 1] + 1});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
      }
    }
  }
  return table[from.size()][to.size()];
}

}  // namespace

std::optional<std::string> suggestionFor(const std::string& typed, const std::vector<std::string>& words) {
  if (typed.size() > kLongestTyped) return std::nullopt;
  const size_t letters = typed.size() - std::min(typed.size(), typed.find_first_not_of('-'));
  if (letters < 2) return std::nullopt;
  const size_t limit = letters < 4 ? 1 : 2;
  std::optional<std::string> best;
  size_t least = 2 * (limit + 1);
  for (const std::string& word : words) {
    const size_t steps = word.starts_with(typed) ? 1 : distance(typed, word);
    // Of equally near words, people mean the one that begins like theirs.
    const size_t penalty = 2 * steps + (word.front() == typed.front() ? 0 : 1);
    if (penalty >= least) continue;
    least = penalty;
    best = word;
  }
  return best;
}

}  // namespace vorlix::tool
