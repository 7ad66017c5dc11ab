// SPDX-License-Identifier: Apache-2.0
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Text.h"
#include "tools/StandardDescriptors.h"

namespace {

// Whether the command that was chosen never writes to a disk or a volume.
bool onlyLooks(const CLI::App& app) {
  static const std::set<std::string, std::less<>> kLooking = {
      "show",    "check", "identify",   "list",      "find",     "boot-camp", "windows",
      "archive", "log",   "image-size", "boot-type", "bootable", "sip",       "check-caller"};
  for (const CLI::App* const command : app.get_subcommands()) {
    if (!kLooking.contains(command->get_name())) return false;
  }
  return true;
}

struct Commands {
  void (*add)(CLI::App& app, int& status);
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
      {addListCommands, {"list", "find", "boot-camp"}},
      {addWindowsCommand, {"windows"}},
      {addStartupDiskCommand, {"startup-disk"}},
      {addLogCommand, {"log"}},
  };
  return all;
}

// Describing all commands takes longer than most of them run, so that one which is named first is the only one. Help,
// and what is no command, need them all.
void addCommands(CLI::App& app, int& status, const std::vector<std::string_view>& arguments) {
  if (arguments.size() == 1 && arguments.front() == "--version") return;
  const auto isNamed = [&](const Commands& commands) {
    return !arguments.empty() &&
           std::find(commands.names.begin(), commands.names.end(), arguments.front()) != commands.names.end();
  };
  const auto& all = allCommands();
  const auto named = std::find_if(all.begin(), all.end(), isNamed);
  for (auto commands = all.begin(); commands != all.end(); ++commands) {
    if (named == all.end() || commands == named) commands->add(app, status);
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vorlix::tool;
  vorlix::fillStandardDescriptors();
  std::signal(SIGXFSZ, SIG_IGN);  // a log that may not grow must not end a command between two writes
  CLI::App app("Partition tables and boot records of disks that hold Windows beside macOS.", "vorlix");
  app.set_version_flag("--version", "vorlix " VORLIX_VERSION);
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return "vorlix: " + printable(error.what()) + "\nRun with --help for more information.\n";
  });
  app.footer(
      "DISK is a block device (/dev/sda, sda), a disk-image file, or slice N of either as DISKsN (mac.imgs3).\n"
      "Exit status: 0 nothing wrong or done, 1 a change is needed or the answer is no, 2 error.\n"
      "The library's log is /tmp/quandrel.log.");

  int status = kDone;
  addCommands(app, status, std::vector<std::string_view>(argv + std::min(argc, 1), argv + argc));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kError;
  } catch (const Failure& failure) {
    complain(
        failure.text(onlyLooks(app), finishedEarlierChange() ? "nothing else was written" : vorlix::kNothingWritten));
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
