// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/LogCapture.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Json.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kNothingShown = "nothing was read";
constexpr size_t kBlock = 64 * 1024;

struct LogOptions {
  unsigned lines = 10;
  bool once = false;
  bool json = false;
};

// Prints log text on standard output. Makes it printable first, because messages may contain names from a disk.
class LogView {
 public:
  /// @param collected  gets the text instead of standard output, as it is, unless it is null
  explicit LogView(std::string* collected) : collected_(collected) {}

  void show(std::string_view added) {
    if (collected_ != nullptr) {
      collected_->append(added);
      return;
    }
    std::string text = std::move(held_);
    text += added;
    held_.clear();
    // printable() needs both bytes of a C1 control character. If the text ends with the first one, keep it until the
    // second one arrives.
    if (!text.empty() && text.back() == '\xC2') {
      held_ = "\xC2";
      text.pop_back();
    }
    std::fputs(printableLines(text).c_str(), stdout);
    std::fflush(stdout);
  }

 private:
  std::string* collected_;
  std::string held_;
};

// An open log, and how much of it was shown. Keeps the file open, so renaming or deleting it has no effect.
class LogFile {
 public:
  LogFile(std::string path, int descriptor) : path_(std::move(path)), descriptor_(descriptor) {}
  ~LogFile() { close(descriptor_); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Returns null if the file does not exist. Anybody can create files in the log's folder, so the path may lead to
  /// something else than a log: reads only a regular file, and never blocks.
  static std::unique_ptr<LogFile> open(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0 && errno == ENOENT) return nullptr;
    if (descriptor < 0) throw Failure::ofErrno(path, errno, kNothingShown);
    auto file = std::make_unique<LogFile>(path, descriptor);
    if (fstat(descriptor, &file->status_) != 0) throw file->failure(errno);
    if (!S_ISREG(file->status_.st_mode)) throw Failure(path, "not a regular file", kNothingShown);
    return file;
  }

  /// Returns whether the path leads to another file now. A path that does not exist may come back and does not count.
  bool isReplaced() const {
    struct stat now = {};
    return stat(path_.c_str(), &now) == 0 && (now.st_dev != status_.st_dev || now.st_ino != status_.st_ino);
  }

  /// Moves to the start of the last `lines` lines. Text after the last line feed counts as a line.
  void seekLastLines(unsigned lines) {
    const off_t size = this->size();
    shown_ = lines == 0 ? size : 0;
    std::array<char, kBlock> block;
    for (off_t end = size; end > 0 && lines > 0;) {
      const off_t start = std::max<off_t>(0, end - static_cast<off_t>(kBlock));
      for (size_t i = read(block.data(), static_cast<size_t>(end - start), start); i > 0; --i) {
        const off_t next = start + static_cast<off_t>(i);
        if (block[i - 1] != '\n' || next == size || --lines > 0) continue;
        shown_ = next;
        return;
      }
      end = start;
    }
  }

  /// Shows what was added since the last call. If the file became shorter, shows it from its start.
  void showRest(LogView& view) {
    if (size() < shown_) shown_ = 0;
    std::array<char, kBlock> block;
    while (const size_t count = read(block.data(), block.size(), shown_)) {
      view.show({block.data(), count});
      shown_ += static_cast<off_t>(count);
      if (std::ferror(stdout) != 0) return;
    }
  }

 private:
  Failure failure(int error) const { return {path_, std::strerror(error), kNothingShown}; }

  off_t size() const {
    struct stat now = {};
    if (fstat(descriptor_, &now) != 0) throw failure(errno);
    return now.st_size;
  }

  size_t read(char* bytes, size_t count, off_t offset) const {
    const ssize_t got = pread(descriptor_, bytes, count, offset);
    if (got < 0) throw failure(errno);
    return static_cast<size_t>(got);
  }

  std::string path_;
  int descriptor_;
  struct stat status_ = {};
  off_t shown_ = 0;
};

// Returns only if writing to standard output fails; otherwise a signal ends it.
void follow(const std::string& path, std::unique_ptr<LogFile> file, LogView& view) {
  constexpr std::chrono::milliseconds kStep{200};
  while (std::ferror(stdout) == 0) {
    std::this_thread::sleep_for(kStep);
    const bool isReplaced = file && file->isReplaced();
    if (file) file->showRest(view);
    if (!file || isReplaced) {
      if (auto next = LogFile::open(path)) {
        file = std::move(next);
        file->showRest(view);
      }
    }
  }
}

void printLinesJson(const std::string& path, const std::string& text) {
  Json lines = Json::array();
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    lines.append(text.substr(start, end - start));
    start = end + 1;
  }
  Json::object({{"version", kJsonVersion}, {"file", path}, {"lines", std::move(lines)}}).print();
}

void showLog(const LogOptions& options) {
  const std::string path = logFilePath();
  std::string text;
  LogView view(options.json ? &text : nullptr);
  auto file = LogFile::open(path);
  if (file && access(path.c_str(), W_OK) != 0) {
    complain(path + ": nothing that you run is logged here, because you may not write to it");
  }
  if (file) {
    file->seekLastLines(options.lines);
    file->showRest(view);
  } else if (options.once) {
    throw Failure(path, "the log does not exist yet", kNothingShown);
  } else {
    complain(path + ": the log does not exist yet; waiting for it");
  }
  if (options.json) printLinesJson(path, text);
  if (!options.once) follow(path, std::move(file), view);
}

}  // namespace

void addLogCommand(Command& top, int& status) {
  const auto options = std::make_shared<LogOptions>();
  Command log = top.addCommand("log", "Show the end of the library's log and follow it");
  log.addOption("--lines", options->lines, "Number of existing lines to show first")
      .completes(ValueKind::text)
      .showDefault();
  const Option once = log.addFlag("--once", options->once, "Show the lines and exit; do not follow the log");
  log.addFlag("--json", options->json, "Show them as JSON").needs(once);
  log.setExamples({"vorlix log --once", "vorlix log --lines 100"});
  log.setAction([options, &status] {
    showLog(*options);
    status = kDone;
  });
}

}  // namespace vorlix::tool
