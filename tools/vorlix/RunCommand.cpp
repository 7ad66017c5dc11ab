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

// Each event is shown as it comes, also where standard output is no terminal.
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

// The program's exit status.
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
  showLine("status " + std::to_string(status) + (status == kStillRunning ? ", it still runs" : ""));
  return status;
}

}  // namespace

void addRunCommand(CLI::App& app, int& status) {
  const auto program = std::make_shared<std::string>();
  CLI::App* const run = app.add_subcommand("run", "Run a program and show what the library's runner delivers of it");
  run->add_option("PROGRAM", *program, "Full path of the program; its arguments follow")->required();
  run->prefix_command();  // what follows is the program's; after "--", whatever it looks like
  run->footer(
      "vorlix run -- PROGRAM [ARGUMENT...]\n"
      "The program is started without a shell and not looked for in PATH. Its standard input is an open, empty pipe.\n"
      "What it prints is shown piece by piece; control characters become \"?\". The run ends when its standard output\n"
      "does; a program that goes on is then asked to end. The status is that of its exit, or the number of the signal\n"
      "that ended it.\n"
      "Exit status: 0 the program's was 0, 1 it was another, 2 the program was not started.");
  run->callback([run, program, &status] {
    std::vector<std::string> command = run->remaining();
    if (!command.empty() && command.front() == "--") command.erase(command.begin());
    command.insert(command.begin(), *program);
    status = runProgram(command) == 0 ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
