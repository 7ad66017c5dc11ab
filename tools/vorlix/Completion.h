// SPDX-License-Identifier: Apache-2.0
//
// Which words may come next on a command line. Pure functions over the command line's definition; CompletionOffers.h
// looks up what only the machine knows.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

/// What the value of an option, or a positional argument, stands for.
enum class ValueKind : uint8_t {
  undeclared,  ///< nobody has said; a test finds it
  text,        ///< free text or a number
  choice,      ///< one of the option's fixed words
  disk,        ///< whole disk or disk-image file
  device,      ///< disk, slice, or disk-image file
  volume,      ///< folder where a volume is mounted, or its device
  mounted,     ///< device of a mounted volume
  partition,   ///< number of an entry of the GPT of the disk that stands before it
  file,
  folder,
  backup,      ///< backup that can be undone
  restore,     ///< restore that was interrupted
  label,       ///< name of a mounted volume
  identifier,  ///< partition GUID
};

/// An option or a positional argument, as the completion sees it.
struct OptionShape {
  std::string name;  ///< "--partition"; "DISK" for a positional argument
  std::string description;
  bool isPositional = false;
  bool takesValue = false;
  bool mayRepeat = false;                         ///< a positional argument that may be given more than once
  ValueKind kind = ValueKind::undeclared;         ///< of its value
  std::vector<std::string> choices;               ///< its fixed words
  int highest = std::numeric_limits<int>::max();  ///< of a number
  std::vector<std::string> excluded;              ///< names of the options that cannot stand beside it
};

/// A command, or the whole command line.
struct CommandShape {
  std::string name;
  std::string description;
  std::vector<OptionShape> options;
  std::vector<CommandShape> commands;
  bool takesRest = false;  ///< what follows the first positional argument is for another program
};

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
  std::vector<Candidate> words;                   ///< commands, options, fixed values
  ValueKind kind = ValueKind::undeclared;         ///< of a value
  int highest = std::numeric_limits<int>::max();  ///< of a number
  std::string before;                             ///< the part of the last word before the value: "--start="
  std::string word;                               ///< the rest of the last word
  std::string disk;                               ///< the last one that was named before; empty if none was
};

/// @param words  of the command line without the program's name. The last one is being written and may be empty.
Wanted wantedBy(const CommandShape& top, const std::vector<std::string>& words);

/// Returns the name of a file that begins as `name` does for a shell: with the home folder in the place of "~".
std::string withoutTilde(const std::string& name, const std::string& home);

/// Returns the name of a kind, for scripts and tests: "disk".
const char* nameOf(ValueKind kind);

}  // namespace vorlix::tool
