// SPDX-License-Identifier: Apache-2.0
//
// The definition of the command line without the parser's types: what completion and help texts need of it.
#pragma once

#include <cstdint>
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

/// The whole numbers that an option accepts, the limits included.
struct NumberRange {
  int lowest = 0;
  int highest = 0;
};

/// An option or a positional argument.
struct OptionShape {
  std::string name;       ///< "--partition"; "DISK" for a positional argument
  std::string shortName;  ///< "-h"; empty if it has none
  std::string description;
  bool isPositional = false;
  bool takesValue = false;
  bool mayRepeat = false;                  ///< a positional argument that may be given more than once
  ValueKind kind = ValueKind::undeclared;  ///< of its value
  bool isNumber = false;                   ///< the value, unless it is one of fixed words
  std::optional<NumberRange> range;        ///< of a number
  bool isRequired = false;
  std::string defaultText;            ///< empty if the description says enough
  std::vector<std::string> choices;   ///< its fixed words
  std::vector<std::string> excluded;  ///< names of the options that cannot stand beside it
  std::vector<std::string> needed;    ///< names of the options that must stand beside it
};

/// A command, or the whole command line.
struct CommandShape {
  std::string name;
  std::string description;
  std::vector<OptionShape> options;
  std::vector<CommandShape> commands;
  bool takesRest = false;  ///< what follows the first positional argument is for another program
  std::string footer;      ///< of its help text
};

/// Returns the name of a kind, for scripts and tests: "disk".
const char* nameOf(ValueKind kind);

}  // namespace vorlix::tool
