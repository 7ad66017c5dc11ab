// SPDX-License-Identifier: Apache-2.0
//
// Which words may come next on a command line. Pure functions over the command line's definition; CompletionOffers.h
// looks up what only the machine knows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CommandShape.h"

namespace vorlix::tool {

/// A word that may be chosen.
struct Candidate {
  std::string text;
  std::string description;

  friend bool operator==(const Candidate&, const Candidate&) = default;
};

/// What may stand in the place of the last word.
struct Wanted {
  enum class Place : uint8_t { nothing, command, option, value };

  Place place = Place::nothing;
  std::vector<Candidate> words;            ///< commands, options, fixed values
  ValueKind kind = ValueKind::undeclared;  ///< of a value
  std::optional<NumberRange> range;        ///< of a number
  std::string before;                      ///< the part of the last word before the value: "--start="
  std::string word;                        ///< the rest of the last word
  std::string disk;                        ///< the last one that was named before; empty if none was
};

/// @param words  of the command line without the program's name. The last one is being written and may be empty.
Wanted wantedBy(const CommandShape& top, const std::vector<std::string>& words);

/// Returns the name of a file that begins as `name` does for a shell: with the home folder in the place of "~".
std::string withoutTilde(const std::string& name, const std::string& home);

}  // namespace vorlix::tool
