// SPDX-License-Identifier: Apache-2.0
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <set>
#include <string>

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
  addShowCommand(app, status);
  addHybridCommand(app, status);
  addCheckCommand(app, status);
  addIdentifyCommand(app, status);
  addMountCommands(app, status);
  addBootStoreCommand(app, status);
  addBootRecordCommands(app, status);
  addLegacyBootCommand(app, status);
  addRunCommand(app, status);
  addImageSizeCommand(app, status);
  addArchiveCommand(app, status);
  addProbeCommands(app, status);
  addListCommands(app, status);
  addWindowsCommand(app, status);
  addStartupDiskCommand(app, status);
  addLogCommand(app, status);
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
