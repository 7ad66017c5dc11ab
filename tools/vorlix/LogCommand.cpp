// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions/Log.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Commands.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

struct LogOptions {
  unsigned lines = 10;
  bool once = false;
};

// Names the file that stands at a path now. A log that was removed or replaced is read from its start.
struct FileIdentity {
  dev_t device = 0;
  ino_t number = 0;
  off_t size = 0;
};

std::optional<FileIdentity> identityOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino, status.st_size};
}

std::string readFrom(const std::string& path, off_t offset) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(offset);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Messages may hold names from a disk; line feeds and tabs are the log's own.
void show(const std::string& text) {
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find_first_of("\n\t", start);
    std::fputs(printable(text.substr(start, end == std::string::npos ? end : end - start)).c_str(), stdout);
    if (end == std::string::npos) break;
    std::fputc(text[end], stdout);
    start = end + 1;
  }
  std::fflush(stdout);
}

size_t startOfLastLines(const std::string& text, unsigned lines) {
  size_t start = text.size();
  if (start > 0 && text.back() == '\n') --start;
  for (; lines > 0; --lines) {
    if (start == 0) return 0;
    const size_t feed = text.rfind('\n', start - 1);
    if (feed == std::string::npos) return 0;
    start = feed;
  }
  return start < text.size() ? start + 1 : start;
}

// Ends only when the process is asked to, or nobody reads any more.
void follow(const std::string& path, std::optional<FileIdentity> shown) {
  constexpr std::chrono::milliseconds kStep{200};
  while (std::ferror(stdout) == 0) {
    std::this_thread::sleep_for(kStep);
    const auto now = identityOf(path);
    if (!now) continue;
    const bool goesOn =
        shown && shown->device == now->device && shown->number == now->number && shown->size <= now->size;
    if (goesOn && shown->size == now->size) continue;
    const off_t offset = goesOn ? shown->size : 0;
    const std::string added = readFrom(path, offset);
    show(added);
    shown = now;
    shown->size = offset + static_cast<off_t>(added.size());
  }
}

void showLog(const LogOptions& options) {
  const std::string& path = logFilePath();
  auto identity = identityOf(path);
  if (!identity && options.once) throw Failure(path, "there is no log yet", "nothing was read");
  if (identity) {
    const std::string text = readFrom(path, 0);
    show(text.substr(startOfLastLines(text, options.lines)));
    identity->size = static_cast<off_t>(text.size());
  }
  if (!options.once) follow(path, identity);
}

}  // namespace

void addLogCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<LogOptions>();
  CLI::App* const log = app.add_subcommand("log", "Show the end of the library's log and what is added to it");
  log->add_option("--lines", options->lines, "How many lines to begin with")->capture_default_str();
  log->add_flag("--once", options->once, "Do not wait for more");
  log->callback([options, &status] {
    showLog(*options);
    status = kDone;
  });
}

}  // namespace vorlix::tool
