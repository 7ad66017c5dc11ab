// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "CompletionOffers.h"
#include "CompletionScripts.h"
#include "Failure.h"

namespace vorlix::tool {
namespace {

const char* placeText(const Wanted& wanted) {
  switch (wanted.place) {
    case Wanted::Place::nothing:
      return "nothing";
    case Wanted::Place::command:
      return "command";
    case Wanted::Place::option:
      return "option";
    case Wanted::Place::value:
      return nameOf(wanted.kind);
  }
  return "nothing";
}

const char* pathsText(OfferedPaths paths) {
  switch (paths) {
    case OfferedPaths::files:
      return " files";
    case OfferedPaths::folders:
      return " folders";
    case OfferedPaths::none:
      return "";
  }
  return "";
}

bool isControl(char c) {
  return (c >= 0 && c < ' ') || c == '\x7F';
}

// Nothing that a disk or a mount is called reaches the terminal as a command for it.
std::string shown(std::string text) {
  std::replace_if(text.begin(), text.end(), isControl, '?');
  return text;
}

}  // namespace

void addCompletionCommand(Command& top, int& status) {
  const auto shell = std::make_shared<std::string>();
  Command command = top.addCommand("completion", "Print the script that completes command lines of vorlix in a shell");
  command.addOption("SHELL", *shell, "bash, zsh or fish").required().oneOf({"bash", "zsh", "fish"});
  command.setFooter(
      "Packages and `cmake --install` put these scripts where the shells look for them. The script asks vorlix what\n"
      "may come next: commands, options and their values, devices, slices of disk images, partitions of the disk that\n"
      "was named, mounted volumes, backups. Nothing is written, and what the user may not read is left out.");
  command.setExamples({"vorlix completion fish | source        in ~/.config/fish/config.fish",
                       "source <(vorlix completion zsh)        in ~/.zshrc, after compinit",
                       "eval \"$(vorlix completion bash)\"       in ~/.bashrc"});
  command.setAction([shell, &status] {
    const char* const zshOrFish = *shell == "zsh" ? kZshCompletion : kFishCompletion;
    std::fputs(*shell == "bash" ? kBashCompletion : zshOrFish, stdout);
    status = kDone;
  });
}

void printCompletions(const CommandShape& shape, const std::vector<std::string>& words) {
  const Wanted wanted = wantedBy(shape, words);
  Offers offers{wanted.words, OfferedPaths::none};
  try {
    offers = offersFor(wanted);
  } catch (const std::exception&) {
    // Somebody is in the middle of a line: what cannot be looked up is not offered.
  }
  std::printf("%s%s\n", placeText(wanted), pathsText(offers.paths));
  for (const Candidate& offer : offers.words) {
    // A name with a line feed or a tab has no line here.
    if (offer.text.empty() || std::any_of(offer.text.begin(), offer.text.end(), isControl)) continue;
    const std::string description = shown(offer.description);
    std::printf("%s%s%s\n", offer.text.c_str(), description.empty() ? "" : "\t", description.c_str());
  }
}

}  // namespace vorlix::tool
