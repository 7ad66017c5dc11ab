// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Text.h"
#include "Version.h"
#include "tools/StandardDescriptors.h"

namespace {

// Whether the command that was chosen never writes to a disk or a volume.
bool onlyLooks(const vorlix::tool::CommandLine& line) {
  constexpr std::string_view kLooking[] = {
      "show",    "check", "identify",   "list",      "find",     "disks", "boot-camp",    "windows",
      "archive", "log",   "image-size", "boot-type", "bootable", "sip",   "check-caller", "completion"};
  const std::vector<std::string> chosen = line.chosen();
  return std::all_of(chosen.begin(), chosen.end(), [&](const std::string& name) {
    return std::find(std::begin(kLooking), std::end(kLooking), name) != std::end(kLooking);
  });
}

struct Commands {
  void (*add)(vorlix::tool::Command& top, int& status);
  std::vector<std::string_view> names;
};

// In the order in which --help shows them.
const std::vector<Commands>& allCommands() {
  using namespace vorlix::tool;
  static const std::vector<Commands> all = {
      {addBackupCommand, {"backup"}},
      {addShowCommand, {"show"}},
      {addHybridCommand, {"hybrid"}},
      {addCheckCommand, {"check"}},
      {addIdentifyCommand, {"identify"}},
      {addMountCommands, {"mount", "unmount", "efi"}},
      {addBootStoreCommand, {"bcd"}},
      {addBootRecordCommands, {"vbr", "boot-code"}},
      {addLegacyBootCommand, {"legacy-boot"}},
      {addUndoCommand, {"undo"}},
      {addRestoreCommand, {"restore"}},
      {addRunCommand, {"run"}},
      {addImageSizeCommand, {"image-size"}},
      {addArchiveCommand, {"archive"}},
      {addProbeCommands, {"boot-type", "bootable", "sip", "check-caller"}},
      {addDisksCommand, {"disks"}},
      {addListCommands, {"list", "find", "boot-camp"}},
      {addWindowsCommand, {"windows"}},
      {addStartupDiskCommand, {"startup-disk"}},
      {addLogCommand, {"log"}},
      {addCompletionCommand, {"completion"}},
  };
  return all;
}

// Describing all commands takes longer than most of them run, so that one which is named first is the only one. Help,
// and what is no command, need them all.
void addCommands(vorlix::tool::Command top, int& status, const std::vector<std::string_view>& arguments) {
  if (arguments.size() == 1 && arguments.front() == "--version") return;
  const auto isNamed = [&](const Commands& commands) {
    return !arguments.empty() &&
           std::find(commands.names.begin(), commands.names.end(), arguments.front()) != commands.names.end();
  };
  const auto& all = allCommands();
  const auto named = std::find_if(all.begin(), all.end(), isNamed);
  for (auto commands = all.begin(); commands != all.end(); ++commands) {
    if (named == all.end() || commands == named) commands->add(top, status);
  }
}

// Whether a shell asks what may come next: "complete -- WORDS". It is no command that people give.
bool isForCompletion(const std::vector<std::string_view>& arguments) {
  return arguments.size() >= 2 && arguments[0] == "complete" && arguments[1] == "--";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vorlix::tool;
  vorlix::fillStandardDescriptors();
  std::signal(SIGXFSZ, SIG_IGN);  // a log that may not grow must not end a command between two writes
  // Never destroyed: taking the parser apart takes longer than reading a GPT.
  static CommandLine& line = *new CommandLine(
      "Partition tables and boot records of disks that hold Windows beside macOS.", "vorlix",
      std::string("vorlix ") + versionText(),
      "DISK is a block device (/dev/sda, sda), a disk-image file, or slice N of either as DISKsN (mac.imgs3).\n"
      "Exit status: 0 nothing wrong or done, 1 a change is needed or the answer is no, 2 error.\n"
      "The library's log is /tmp/quandrel.log.");

  int status = kDone;
  line.top().addFlag("--verbose", isVerbose(), "Say each time that the library's log cannot be written");
  std::vector<std::string_view> arguments(argv + std::min(argc, 1), argv + argc);
  const bool completes = isForCompletion(arguments);
  // The last word is not written out yet.
  if (completes) arguments = {arguments.begin() + 2, arguments.end() - (arguments.size() > 2 ? 1 : 0)};
  addCommands(line.top(), status, arguments);
  line.top().addFlagBelow("--verbose", isVerbose());
  try {
    if (completes) {
      printCompletions(line.top().shape(), std::vector<std::string>(argv + 3, argv + argc));
      return kDone;
    }
    if (const std::optional<int> ended = line.run(argc, argv)) return *ended;
  } catch (const Failure& failure) {
    complain(
        failure.text(onlyLooks(line), finishedEarlierChange() ? "nothing else was written" : vorlix::kNothingWritten));
    return kError;
  } catch (const std::exception& error) {
    complain(error.what());
    return kError;
  }
  // A table that did not reach its reader whole must not look like success.
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::perror("vorlix: standard output");
    return kError;
  }
  return status;
}
