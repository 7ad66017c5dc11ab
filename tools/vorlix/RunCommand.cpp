// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr std::chrono::milliseconds kStep{100};
constexpr int32_t kStillRunning = -999;

// Prints a line at once, even if standard output is not a terminal.
void showLine(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void showPiece(const char* stream, const std::optional<std::string>& text) {
  if (!text) {
    showLine(std::string(stream) + ": a piece that is not UTF-8");
    return;
  }
  std::string shown = std::string(stream) + ": " + std::to_string(text->size()) + " bytes";
  size_t start = 0;
  while (start < text->size()) {
    const size_t end = std::min(text->find('\n', start), text->size());
    shown += "\n  " + printable(text->substr(start, end - start));
    start = end + 1;
  }
  showLine(shown);
}

// Returns the program's exit status, or kStillRunning.
int32_t runProgram(const std::vector<std::string>& arguments) {
  bool ended = false;
  const auto runner = QDTaskWrapperWithBlocks::initWithStartBlock(
      [] { showLine("start"); },
      [&ended] {
        showLine("end");
        ended = true;
      },
      [](const std::optional<std::string>& text) { showPiece("output", text); },
      [](const std::optional<std::string>& text) { showPiece("error output", text); },
      std::make_shared<const std::vector<std::string>>(arguments));
  try {
    runner->startProcess();
  } catch (const std::system_error& error) {
    throw Failure(arguments.front(), error.code().message(), "nothing was started");
  }
  const std::shared_ptr<RunLoop> loop = platform().runLoops->current();
  while (!ended) loop->run(kDefaultRunLoopMode, kStep);
  const int32_t status = runner->terminationStatus();
  showLine("status " + std::to_string(status) + (status == kStillRunning ? ", still running" : ""));
  return status;
}

}  // namespace

void addRunCommand(Command& top, int& status) {
  const auto program = std::make_shared<std::string>();
  Command run =
      top.addCommand("run", "Run a program and show the events and output that the library's runner delivers");
  run.addOption("PROGRAM", *program, "Full path of the program; its arguments follow")
      .completes(ValueKind::file)
      .required();
  run.takeRest();  // the remaining arguments belong to the program; after "--", even if they look like options
  run.setFooter(
      "vorlix run -- PROGRAM [ARGUMENT...]\n"
      "The program is started without a shell and without a search in PATH. Its standard input is an open pipe\n"
      "without data. Its output is shown in the pieces that arrive; control characters become \"?\". The run ends\n"
      "when every process that inherited the program's standard output has closed it. A program that is still\n"
      "running then gets SIGTERM. The status shown is the program's exit status, or the number of the signal that\n"
      "ended it.\n"
      "Exit status: 0 the program's status is 0, 1 it is another one, 2 the program could not be started.");
  run.setExamples({"vorlix run -- /bin/ls -l"});
  run.setAction([run, program, &status] {
    std::vector<std::string> command = run.rest();
    if (!command.empty() && command.front() == "--") command.erase(command.begin());
    command.insert(command.begin(), *program);
    status = runProgram(command) == 0 ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
