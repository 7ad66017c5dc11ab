// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/NSNumber+HumanReadable.h>
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/NotificationCenter.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Failure.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr std::chrono::milliseconds kStep{100};

// Runs the thread's loop until `done` says so; `tick` is called after each step.
void runLoopUntil(const std::function<bool()>& done, const std::function<void()>& tick) {
  const std::shared_ptr<RunLoop> loop = platform().runLoops->current();
  while (!done()) {
    loop->run(kDefaultRunLoopMode, kStep);
    tick();
  }
}

void showChunk(const char* stream, const std::optional<std::string>& text) {
  if (!text) {
    std::printf("%s: a chunk that is not UTF-8\n", stream);
    return;
  }
  std::printf("%s: %zu bytes\n", stream, text->size());
  size_t start = 0;
  while (start < text->size()) {
    const size_t end = std::min(text->find('\n', start), text->size());
    std::printf("  %s\n", printable(text->substr(start, end - start)).c_str());
    start = end + 1;
  }
}

void runProgram(const std::vector<std::string>& arguments) {
  bool ended = false;
  const auto runner = QDTaskWrapperWithBlocks::initWithStartBlock(
      [] { std::printf("start\n"); },
      [&ended] {
        std::printf("end\n");
        ended = true;
      },
      [](const std::optional<std::string>& text) { showChunk("output", text); },
      [](const std::optional<std::string>& text) { showChunk("error output", text); },
      std::make_shared<const std::vector<std::string>>(arguments));
  try {
    runner->startProcess();
  } catch (const std::system_error& error) {
    throw Failure(arguments.front(), error.code().message(), "not started");
  }
  runLoopUntil([&] { return ended; }, [] {});
  std::printf("status %d\n", runner->terminationStatus());
}

// A bar that moves while something of unknown length goes on, on a terminal only.
class ActivityBar {
 public:
  ActivityBar() : shown_(isatty(STDERR_FILENO) == 1), start_(std::chrono::steady_clock::now()) {}
  ~ActivityBar() {
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  ActivityBar(const ActivityBar&) = delete;
  ActivityBar& operator=(const ActivityBar&) = delete;

  void move() {
    if (!shown_) return;
    constexpr size_t kWidth = 30;
    constexpr size_t kBlock = 6;
    const auto elapsed = std::chrono::steady_clock::now() - start_;
    const auto steps = static_cast<size_t>(elapsed / kStep);
    const size_t turn = steps % (2 * (kWidth - kBlock));
    const size_t place = turn < kWidth - kBlock ? turn : 2 * (kWidth - kBlock) - turn;
    std::string bar(kWidth, ' ');
    bar.replace(place, kBlock, kBlock, '=');
    std::fprintf(stderr, "\r[%s] %llds", bar.c_str(),
                 static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
  }

 private:
  bool shown_;
  std::chrono::steady_clock::time_point start_;
};

void measureImage(const std::string& file) {
  const std::filesystem::path path(file);
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) throw Failure(file, "not a file");
  if (path.extension() != ".gz" && path.extension() != ".zip") {
    throw Failure(file, "only .gz and .zip images are measured");
  }
  const LibraryLog log;
  const auto volume = QDVolume::init();
  volume->setFilePath(file);
  const auto token = NotificationCenter::defaultCenter().addObserver(
      kDisksChangedNotification, volume.get(), [&](const Notification&) {
        if (volume->totalSize() == "-1") std::fprintf(stderr, "measuring %s\n", file.c_str());
      });
  volume->updateSize();
  {
    ActivityBar bar;
    runLoopUntil([&] { return !volume->wrapperArray() || volume->wrapperArray()->empty(); }, [&bar] { bar.move(); });
  }
  NotificationCenter::defaultCenter().removeObserver(token);
  const long long size = std::atoll(volume->totalSize().value_or("").c_str());
  // What the unpacker complains of only reaches the log; the count beside it is of what came before.
  std::string complaints = log.text();
  if (const std::string count = volume->totalSize().value_or(""); complaints.ends_with(count + "\n")) {
    complaints.resize(complaints.size() - count.size() - 1);
  }
  if (complaints.find_first_not_of(" \n") != std::string::npos) {
    log.print();
    throw Failure(file, "could not be unpacked whole", std::to_string(size) + " bytes came out of it");
  }
  std::printf("%lld bytes (%s)\n", size, stringWithHumanReadableInt(Number::numberWithLongLong(size)).c_str());
}

}  // namespace

void addRunCommands(CLI::App& app, int& status) {
  const auto arguments = std::make_shared<std::vector<std::string>>();
  CLI::App* const run = app.add_subcommand("run", "Run a program and show what the library's runner delivers of it");
  run->add_option("PROGRAM", *arguments, "Full path of the program and its arguments, after --")->required();
  run->callback([arguments, &status] {
    runProgram(*arguments);
    status = kDone;
  });

  const auto file = std::make_shared<std::string>();
  CLI::App* const size = app.add_subcommand("image-size", "Measure the unpacked size of a .gz or .zip disk image");
  size->add_option("FILE", *file, "The image")->required();
  size->callback([file, &status] {
    measureImage(*file);
    status = kDone;
  });
}

}  // namespace vorlix::tool
