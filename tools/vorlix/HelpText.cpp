// SPDX-License-Identifier: Apache-2.0
#include "HelpText.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kDescriptions = 30;  // the column where they start

std::string joined(const std::vector<std::string>& words, const std::string& between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

std::string usageOf(const OptionShape& argument) {
  const std::string name = argument.name + (argument.mayRepeat ? "..." : "");
  return argument.isRequired ? name : "[" + name + "]";
}

std::string usage(const CommandShape& command, const std::string& path) {
  std::string text = "Usage: " + path + " [OPTIONS]";
  for (const OptionShape& option : command.options) {
    if (option.isPositional) text += " " + usageOf(option);
  }
  if (command.takesRest) text += " [ARGUMENT...]";
  if (!command.commands.empty()) text += " COMMAND";
  return text + "\n";
}

std::string valueNameOf(const OptionShape& option) {
  switch (option.kind) {
    case ValueKind::choice:
      return joined(option.choices, "|");
    case ValueKind::disk:
      return "DISK";
    case ValueKind::device:
      return "DEVICE";
    case ValueKind::volume:
    case ValueKind::mounted:
      return "VOLUME";
    case ValueKind::partition:
      return "N";
    case ValueKind::file:
      return "FILE";
    case ValueKind::folder:
      return "FOLDER";
    case ValueKind::backup:
    case ValueKind::restore:
    case ValueKind::label:
      return "NAME";
    case ValueKind::identifier:
      return "UUID";
    case ValueKind::text:
    case ValueKind::undeclared:
      break;
  }
  return option.isNumber ? "N" : "TEXT";
}

std::string titleOf(const OptionShape& option) {
  std::string title = option.shortName.empty() ? option.name : option.shortName + ", " + option.name;
  if (option.takesValue && !option.isPositional) title += " " + valueNameOf(option);
  return title;
}

// With what the parser demands, in the parentheses that end the description or in new ones.
std::string descriptionOf(const OptionShape& option) {
  std::vector<std::string> notes;
  if (option.range)
    notes.push_back(std::to_string(option.range->lowest) + " to " + std::to_string(option.range->highest));
  if (!option.defaultText.empty()) notes.push_back("default: " + option.defaultText);
  if (option.isRequired && !option.isPositional) notes.push_back("required");
  if (!option.needed.empty()) notes.push_back("needs " + joined(option.needed, " and "));
  if (!option.excluded.empty()) notes.push_back("not with " + joined(option.excluded, " or "));
  if (notes.empty()) return option.description;
  const bool hasParentheses = option.description.ends_with(')');
  const std::string before =
      hasParentheses ? option.description.substr(0, option.description.size() - 1) + "; " : option.description + " (";
  return before + joined(notes, "; ") + ")";
}

std::string line(const std::string& title, const std::string& description) {
  std::string text = "  " + title;
  if (text.size() + 2 > kDescriptions) text += "\n";
  const size_t column = text.ends_with('\n') ? 0 : text.size();
  return text + std::string(kDescriptions - column, ' ') + hangingText(description, kDescriptions) + "\n";
}

std::string options(const CommandShape& command, bool arePositional, const std::string& heading) {
  std::string text;
  for (const OptionShape& option : command.options) {
    if (option.isPositional == arePositional) text += line(titleOf(option), descriptionOf(option));
  }
  return text.empty() ? "" : "\n" + heading + ":\n" + text;
}

std::string commands(const CommandShape& command) {
  std::string text;
  for (const CommandShape& below : command.commands) text += line(below.name, below.description);
  return text.empty() ? "" : "\nCommands:\n" + text;
}

// People copy examples, which begin with a space, so that these lines stay whole.
std::string footer(const std::string& lines) {
  std::string text;
  for (size_t start = 0; start < lines.size();) {
    const size_t end = std::min(lines.find('\n', start), lines.size());
    const std::string whole = lines.substr(start, end - start);
    text += (whole.starts_with(' ') ? whole : hangingText(whole, 0)) + "\n";
    start = end + 1;
  }
  return text.empty() ? "" : "\n" + text;
}

}  // namespace

std::string helpText(const CommandShape& command, const std::string& path) {
  return hangingText(command.description, 0) + "\n" + usage(command, path) + options(command, true, "Arguments") +
         options(command, false, "Options") + commands(command) + footer(command.footer);
}

}  // namespace vorlix::tool
