// SPDX-License-Identifier: Apache-2.0
//
// The command line as the commands see it. CommandLine.cpp alone includes the parser, because compiling the parser
// takes longer than compiling a command.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandShape.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace vorlix::tool {

/// What the parser does not keep of an option's value.
struct DeclaredValue {
  ValueKind kind = ValueKind::undeclared;
  std::vector<std::string> choices;
  bool isNumber = false;
  std::optional<NumberRange> range;
};
using DeclaredValues = std::map<const CLI::Option*, DeclaredValue>;

/// An option or a positional argument of a command. A handle: copies stand for the same option, which the CommandLine
/// owns. The functions that change the option return the handle, so that calls can be chained.
class Option {
 public:
  Option(CLI::Option* inner, DeclaredValues& declared) : inner_(inner), declared_(&declared) {}

  Option& required();

  /// Says what the value stands for, so that shells can complete it. Every option with a value needs this, or fixed
  /// words.
  Option& completes(ValueKind kind);

  /// Accepts whole numbers from `lowest` to `highest` only.
  Option& within(int lowest, int highest);

  /// Accepts these texts only.
  Option& oneOf(std::vector<std::string> texts);

  /// Accepts the names and the numbers of a map. The target gets the number.
  Option& named(const std::map<std::string, int32_t>& numbers);

  /// Makes the parser refuse a command line with both options.
  Option& excludes(const Option& other);

  /// Makes the parser refuse this option without the other one.
  Option& needs(const Option& other);

  /// Shows the target's present value in the help text.
  Option& showDefault();

  /// Whether the user gave the option.
  bool isGiven() const;

 private:
  void declareChoices(std::vector<std::string> choices);

  CLI::Option* inner_;
  DeclaredValues* declared_;
};

/// A command with its options and subcommands. A handle, like Option. Targets of options must live until the command
/// has run.
class Command {
 public:
  Command(CLI::App* inner, DeclaredValues& declared) : inner_(inner), declared_(&declared) {}

  Command addCommand(const std::string& name, const std::string& description);

  /// Adds an option with a value ("--name") or a positional argument ("NAME").
  Option addOption(const std::string& name, std::string& target, const std::string& description);
  Option addOption(const std::string& name, uint32_t& target, const std::string& description);
  Option addOption(const std::string& name, int32_t& target, const std::string& description);
  Option addOption(const std::string& name, std::optional<uint64_t>& target, const std::string& description);

  /// Adds positional arguments of any number ("NAME").
  Option addOption(const std::string& name, std::vector<std::string>& target, const std::string& description);

  /// Adds an option whose value is one of the names of an enumeration's values, or a value's number.
  template <typename Enumeration>
  Option addChoice(const std::string& name, Enumeration& target, const std::map<std::string, Enumeration>& values,
                   const std::string& description) {
    std::map<std::string, int32_t> numbers;
    for (const auto& [text, value] : values) numbers[text] = static_cast<int32_t>(value);
    return addChoice(
        name, [&target](int32_t number) { target = static_cast<Enumeration>(number); }, numbers, description);
  }

  /// Adds an option without a value, which sets the target to true.
  Option addFlag(const std::string& name, bool& target, const std::string& description);

  /// Accepts the flag behind each of the present subcommands too, without a line in their help texts.
  void addFlagBelow(const std::string& name, bool& target);

  /// Refuses a command line that names none or several of the subcommands.
  void requireCommand();

  /// Lets whatever follows the first positional argument be for the command itself: rest() returns it.
  void takeRest();
  std::vector<std::string> rest() const;

  /// Text below the options in the help text.
  void setFooter(const std::string& text);

  /// Adds command lines that show how the command is used to the help text. Call it after setFooter().
  void setExamples(const std::vector<std::string>& lines);

  /// Runs when the user has chosen the command, after all options have their values.
  void setAction(std::function<void()> action);

  /// The definition as plain values: visible commands and options.
  CommandShape shape() const;

 private:
  Option numberOption(CLI::Option* inner);
  Option addChoice(const std::string& name, std::function<void(int32_t)> set,
                   const std::map<std::string, int32_t>& numbers, const std::string& description);

  CLI::App* inner_;
  DeclaredValues* declared_;
};

/// Ends an action like the parser's own refusal: of an option that is missing, or of an option's value.
[[noreturn]] void refuseWithout(const std::string& option);
[[noreturn]] void refuseValue(const std::string& option, const std::string& reason);

/// The parser of the whole command line.
class CommandLine {
 public:
  /// @param version  what --version prints.
  CommandLine(const std::string& description, const std::string& program, const std::string& version,
              const std::string& footer);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// To add commands to.
  Command top();

  /// Parses the arguments and runs the action of the chosen command. "help" before a command is "--help" behind it.
  /// Exceptions of the action pass through.
  /// @return the exit status if no action ran or an action refused its options: kDone after help and version, else
  ///         kError, with the message on standard error. Absent if the action ran.
  std::optional<int> run(int argc, const char* const* argv);

  /// Names of the commands that were chosen.
  std::vector<std::string> chosen() const;

 private:
  std::unique_ptr<CLI::App> app_;
  DeclaredValues declared_;
};

}  // namespace vorlix::tool
