// SPDX-License-Identifier: Apache-2.0
#include "Completion.h"

#include <algorithm>
#include <set>

namespace vorlix::tool {
namespace {

template <typename Shape>
const Shape* shapeNamed(const std::vector<Shape>& shapes, const std::string& name) {
  const auto found = std::find_if(shapes.begin(), shapes.end(), [&](const Shape& shape) { return shape.name == name; });
  return found == shapes.end() ? nullptr : &*found;
}

// Follows the words of a command line from the first one on.
class Reader {
 public:
  explicit Reader(const CommandShape& top) : command_(&top) {}

  void read(const std::string& word) {
    if (pending_ != nullptr) {
      take(*pending_, word);
      pending_ = nullptr;
    } else if (!isOption(word)) {
      readArgument(word);
    } else if (word == "--") {
      hasOnlyArguments_ = true;
    } else if (const OptionShape* const option = shapeNamed(command_->options, word.substr(0, word.find('=')))) {
      given_.insert(option->name);
      const size_t sign = word.find('=');
      if (sign != std::string::npos) take(*option, word.substr(sign + 1));
      if (sign == std::string::npos && option->takesValue) pending_ = option;
    }
  }

  Wanted last(const std::string& word) const {
    if (isLost_) return {};
    if (isOfAnotherProgram_) return value(ValueKind::file, "", word);
    if (pending_ != nullptr) return valueOf(*pending_, "", word);
    if (isOption(word)) {
      const size_t sign = word.find('=');
      if (sign == std::string::npos) return options(word);
      const OptionShape* const option = shapeNamed(command_->options, word.substr(0, sign));
      const bool hasValue = option != nullptr && option->takesValue && !isExcluded(*option);
      return hasValue ? valueOf(*option, word.substr(0, sign + 1), word.substr(sign + 1)) : Wanted();
    }
    if (!command_->commands.empty()) return commands(word);
    const OptionShape* const argument = nextArgument();
    return argument != nullptr ? valueOf(*argument, "", word) : hasOnlyArguments_ ? Wanted() : options(word);
  }

 private:
  bool isOption(const std::string& word) const {
    return !hasOnlyArguments_ && !isOfAnotherProgram_ && word.size() > 0 && word.front() == '-';
  }

  void readArgument(const std::string& word) {
    if (!command_->commands.empty()) {
      const CommandShape* const below = shapeNamed(command_->commands, word);
      isLost_ = isLost_ || below == nullptr;
      if (below == nullptr) return;
      command_ = below;
      given_.clear();
      arguments_ = 0;
      return;
    }
    if (const OptionShape* const argument = nextArgument()) take(*argument, word);
    ++arguments_;
    isOfAnotherProgram_ = command_->takesRest;
  }

  void take(const OptionShape& option, const std::string& word) {
    given_.insert(option.name);
    if (option.kind == ValueKind::disk) disk_ = word;
  }

  bool isExcluded(const OptionShape& option) const {
    return std::any_of(option.excluded.begin(), option.excluded.end(),
                       [&](const std::string& other) { return given_.count(other) != 0; });
  }

  // Null if there is none, or if it cannot stand beside an option that was given.
  const OptionShape* nextArgument() const {
    size_t place = 0;
    for (const OptionShape& option : command_->options) {
      if (!option.isPositional) continue;
      const bool isNext = place == arguments_ || (option.mayRepeat && place < arguments_);
      if (isNext) return isExcluded(option) ? nullptr : &option;
      ++place;
    }
    return nullptr;
  }

  Wanted commands(const std::string& word) const {
    Wanted wanted;
    wanted.place = Wanted::Place::command;
    wanted.word = word;
    for (const CommandShape& below : command_->commands) wanted.words.push_back({below.name, below.description});
    return wanted;
  }

  Wanted options(const std::string& word) const {
    Wanted wanted;
    wanted.place = Wanted::Place::option;
    wanted.word = word;
    for (const OptionShape& option : command_->options) {
      if (option.isPositional || given_.count(option.name) != 0 || isExcluded(option)) continue;
      wanted.words.push_back({option.name, option.description});
    }
    return wanted;
  }

  Wanted value(ValueKind kind, const std::string& before, const std::string& word) const {
    Wanted wanted;
    wanted.place = Wanted::Place::value;
    wanted.kind = kind;
    wanted.before = before;
    wanted.word = word;
    wanted.disk = disk_;
    return wanted;
  }

  Wanted valueOf(const OptionShape& option, const std::string& before, const std::string& word) const {
    Wanted wanted = value(option.kind, before, word);
    wanted.range = option.range;
    for (const std::string& choice : option.choices) wanted.words.push_back({choice, ""});
    return wanted;
  }

  const CommandShape* command_;
  const OptionShape* pending_ = nullptr;  // whose value is the next word
  std::set<std::string> given_;           // names of the command's options and arguments
  size_t arguments_ = 0;
  std::string disk_;
  bool hasOnlyArguments_ = false;    // after "--"
  bool isOfAnotherProgram_ = false;  // after the program's name that a command takes with the rest
  bool isLost_ = false;              // after a word that is no command
};

}  // namespace

Wanted wantedBy(const CommandShape& top, const std::vector<std::string>& words) {
  if (words.empty()) return {};
  Reader reader(top);
  for (size_t i = 0; i + 1 < words.size(); ++i) reader.read(words[i]);
  return reader.last(words.back());
}

std::string withoutTilde(const std::string& name, const std::string& home) {
  return name.starts_with("~/") && !home.empty() ? home + name.substr(1) : name;
}

}  // namespace vorlix::tool
