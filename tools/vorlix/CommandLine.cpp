// SPDX-License-Identifier: Apache-2.0
#include "CommandLine.h"

#include <CLI/CLI.hpp>  // which of its headers has what changes with the version
#include <algorithm>
#include <cstdio>
#include <set>
#include <string_view>
#include <utility>

#include "Failure.h"
#include "HelpText.h"
#include "Suggestion.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

std::string messageOf(const std::string& error) {
  return "vorlix: " + printable(error) + "\nRun with --help for more information.\n";
}

std::vector<std::string> optionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : command.get_options()) {
    if (option->get_group().empty()) continue;  // is not shown
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

// The names of the visible commands below a command, each after `before`.
std::vector<std::string> commandNames(const CLI::App& command, const std::string& before) {
  std::vector<std::string> names;
  for (const CLI::App* const below : command.get_subcommands({})) {
    if (!below->get_group().empty()) names.push_back(before + below->get_name());
  }
  return names;
}

// A command as the user reached it, with the names of the commands before it and a space after each.
struct ReachedCommand {
  const CLI::App* command;
  std::string path;
};

ReachedCommand reachedCommand(const CLI::App& top) {
  ReachedCommand reached = {&top, ""};
  while (!reached.command->get_subcommands().empty()) {
    reached.command = reached.command->get_subcommands().back();
    reached.path += reached.command->get_name() + " ";
  }
  return reached;
}

// Says which word is no command or option, and which may have been meant. Empty if there is no such word.
std::string unknownWordText(const CLI::App& top) {
  ReachedCommand at = reachedCommand(top);
  std::vector<std::string> unknown = at.command->remaining();
  if (unknown.empty()) {  // it may stand before the command
    at = {&top, ""};
    unknown = top.remaining();
  }
  if (unknown.empty()) return "";
  const bool isOption = unknown.front().starts_with("-") && unknown.front() != "--" && unknown.front() != "-";
  if (!isOption && at.command->get_subcommands({}).empty()) return "";
  const std::string word = isOption ? unknown.front().substr(0, unknown.front().find('=')) : at.path + unknown.front();
  std::vector<std::string> known = isOption ? optionNames(*at.command) : commandNames(*at.command, at.path);
  if (word == "version") known.push_back("--version");
  const auto meant = suggestionFor(word, known);
  return std::string("no ") + (isOption ? "option" : "command") + " '" + word + "'" +
         (meant ? "; did you mean '" + *meant + "'?" : "");
}

// Says that a command needs one of its own commands, and which there are. Empty if nothing is missing.
std::string missingCommandText(const CLI::App& top) {
  const ReachedCommand at = reachedCommand(top);
  if (at.command->get_subcommands({}).empty()) return "";
  if (at.command == &top) return "a command is required";
  std::string names;
  for (const std::string& name : commandNames(*at.command, "")) names += (names.empty() ? "" : ", ") + name;
  return "a command of '" + at.command->get_name() + "' is required: " + names;
}

std::vector<std::string> namesIn(const std::map<std::string, int32_t>& numbers) {
  std::vector<std::string> names;
  for (const auto& number : numbers) names.push_back(number.first);
  return names;
}

// As the command line has it: "--partition", "DISK". Options with a short name alone have none.
std::string nameOf(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name(true);
  return option.get_lnames().empty() ? "" : "--" + option.get_lnames().front();
}

// Of a set that the parser keeps in the order of addresses, the names in the order of the command's definition.
std::vector<std::string> namesOf(const std::set<CLI::Option*>& options, const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : command.get_options()) {
    if (std::find(options.begin(), options.end(), option) != options.end()) names.push_back(nameOf(*option));
  }
  return names;
}

OptionShape shapeOf(const CLI::Option& option, const CLI::App& command, const DeclaredValues& declared) {
  OptionShape shape;
  shape.name = nameOf(option);
  shape.description = option.get_description();
  shape.isPositional = option.get_positional();
  shape.takesValue = option.get_items_expected_max() > 0;
  shape.mayRepeat = option.get_items_expected_max() > 1;
  shape.isRequired = option.get_required();
  shape.defaultText = option.get_default_str();
  if (!option.get_snames().empty()) shape.shortName = "-" + option.get_snames().front();
  if (const auto value = declared.find(&option); value != declared.end()) {
    shape.kind = value->second.kind;
    shape.choices = value->second.choices;
    shape.range = value->second.range;
    shape.isNumber = value->second.isNumber;
  }
  shape.excluded = namesOf(option.get_excludes(), command);
  shape.needed = namesOf(option.get_needs(), command);
  return shape;
}

CommandShape shapeOf(const CLI::App& command, const DeclaredValues& declared) {
  CommandShape shape;
  shape.name = command.get_name();
  shape.description = command.get_description();
  shape.takesRest = command.get_prefix_command();
  shape.footer = command.get_footer();
  for (const CLI::Option* const option : command.get_options()) {
    if (!option->get_group().empty() && !nameOf(*option).empty())
      shape.options.push_back(shapeOf(*option, command, declared));
  }
  for (const CLI::App* const below : command.get_subcommands({})) {
    if (!below->get_group().empty()) shape.commands.push_back(shapeOf(*below, declared));
  }
  return shape;
}

}  // namespace

Option& Option::required() {
  inner_->required();
  return *this;
}

Option& Option::within(int lowest, int highest) {
  inner_->check(CLI::Range(lowest, highest));
  (*declared_)[inner_].range = NumberRange{lowest, highest};
  return *this;
}

Option& Option::completes(ValueKind kind) {
  (*declared_)[inner_].kind = kind;
  return *this;
}

void Option::declareChoices(std::vector<std::string> choices) {
  (*declared_)[inner_].kind = ValueKind::choice;
  (*declared_)[inner_].choices = std::move(choices);
}

Option& Option::oneOf(std::vector<std::string> texts) {
  declareChoices(texts);
  inner_->check(CLI::IsMember(std::move(texts)));
  return *this;
}

Option& Option::named(const std::map<std::string, int32_t>& numbers) {
  declareChoices(namesIn(numbers));
  inner_->transform(CLI::CheckedTransformer(numbers));
  return *this;
}

Option& Option::excludes(const Option& other) {
  inner_->excludes(other.inner_);
  return *this;
}

Option& Option::needs(const Option& other) {
  inner_->needs(other.inner_);
  return *this;
}

Option& Option::showDefault() {
  inner_->capture_default_str();
  return *this;
}

bool Option::isGiven() const {
  return !inner_->empty();
}

Command Command::addCommand(const std::string& name, const std::string& description) {
  return Command(inner_->add_subcommand(name, description), *declared_);
}

Option Command::addOption(const std::string& name, std::string& target, const std::string& description) {
  return Option(inner_->add_option(name, target, description), *declared_);
}

Option Command::addOption(const std::string& name, std::vector<std::string>& target, const std::string& description) {
  return Option(inner_->add_option(name, target, description), *declared_);
}

Option Command::addOption(const std::string& name, uint32_t& target, const std::string& description) {
  return numberOption(inner_->add_option(name, target, description));
}

Option Command::addOption(const std::string& name, int32_t& target, const std::string& description) {
  return numberOption(inner_->add_option(name, target, description));
}

Option Command::addOption(const std::string& name, std::optional<uint64_t>& target, const std::string& description) {
  return numberOption(inner_->add_option(name, target, description));
}

Option Command::numberOption(CLI::Option* inner) {
  (*declared_)[inner].isNumber = true;
  return Option(inner, *declared_);
}

Option Command::addChoice(const std::string& name, std::function<void(int32_t)> set,
                          const std::map<std::string, int32_t>& numbers, const std::string& description) {
  return Option(inner_->add_option_function<int32_t>(name, std::move(set), description), *declared_).named(numbers);
}

Option Command::addFlag(const std::string& name, bool& target, const std::string& description) {
  return Option(inner_->add_flag(name, target, description), *declared_);
}

void Command::addFlagBelow(const std::string& name, bool& target) {
  for (CLI::App* const below : inner_->get_subcommands({})) {
    below->add_flag(name, target)->group("");  // is not shown
    Command(below, *declared_).addFlagBelow(name, target);
  }
}

void Command::requireCommand() {
  inner_->require_subcommand(1);
}

void Command::takeRest() {
  inner_->prefix_command();
}

std::vector<std::string> Command::rest() const {
  return inner_->remaining();
}

void Command::setFooter(const std::string& text) {
  inner_->footer(text);
}

void Command::setExamples(const std::vector<std::string>& lines) {
  std::string text = inner_->get_footer();
  if (const size_t inherited = text.find("\n\nExamples:"); inherited != std::string::npos) text.erase(inherited);
  if (!text.empty()) text += "\n\n";
  text += "Examples:";
  for (const std::string& line : lines) text += "\n  " + line;
  inner_->footer(text);
}

void Command::setAction(std::function<void()> action) {
  inner_->callback(std::move(action));
}

CommandShape Command::shape() const {
  return shapeOf(*inner_, *declared_);
}

void refuseWithout(const std::string& option) {
  throw CLI::RequiredError(option);
}

void refuseValue(const std::string& option, const std::string& reason) {
  throw CLI::ValidationError(option, reason);
}

CommandLine::CommandLine(const std::string& description, const std::string& program, const std::string& version,
                         const std::string& footer)
    : app_(std::make_unique<CLI::App>(description, program)) {
  app_->set_version_flag("--version", version);
  app_->require_subcommand(1);
  app_->failure_message([](const CLI::App*, const CLI::Error& error) { return messageOf(error.what()); });
  app_->footer(footer);
}

CommandLine::~CommandLine() = default;

Command CommandLine::top() {
  return Command(app_.get(), declared_);
}

std::optional<int> CommandLine::run(int argc, const char* const* argv) {
  std::vector<const char*> words(argv, argv + argc);
  if (argc > 1 && std::string_view(argv[1]) == "help") {  // "help show" is "show --help"
    words.erase(words.begin() + 1);
    words.push_back("--help");
  }
  try {
    app_->parse(static_cast<int>(words.size()), words.data());
  } catch (const CLI::ParseError& error) {
    // A mistyped word is missing somewhere, too. Its own message says more.
    const auto kind = static_cast<CLI::ExitCodes>(error.get_exit_code());
    const bool isMissing = kind == CLI::ExitCodes::RequiredError;
    const bool isHelpOfUnknown = kind == CLI::ExitCodes::Success && !app_->remaining().empty();
    const bool mayBeMistyped = isMissing || isHelpOfUnknown || kind == CLI::ExitCodes::ExtrasError;
    std::string text = mayBeMistyped ? unknownWordText(*app_) : "";
    if (text.empty() && isMissing) text = missingCommandText(*app_);
    if (text.empty() && error.get_name() == "CallForHelp") {
      const ReachedCommand at = reachedCommand(*app_);
      std::string path = app_->get_name() + " " + at.path;
      path.pop_back();
      std::fputs(helpText(shapeOf(*at.command, declared_), path).c_str(), stdout);
      return kDone;
    }
    if (text.empty()) return app_->exit(error) == 0 ? kDone : kError;
    std::fputs(messageOf(text).c_str(), stderr);
    return kError;
  }
  return std::nullopt;
}

std::vector<std::string> CommandLine::chosen() const {
  std::vector<std::string> names;
  for (const CLI::App* const command : app_->get_subcommands()) names.push_back(command->get_name());
  return names;
}

}  // namespace vorlix::tool
