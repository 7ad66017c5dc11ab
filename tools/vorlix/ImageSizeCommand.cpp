// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/NSNumber+HumanReadable.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/NotificationCenter.h>
#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Commands.h"
#include "Failure.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr std::chrono::milliseconds kStep{100};
constexpr const char* kUntouched = "nothing was run";
constexpr const char* kSystemUnzip = "/usr/bin/unzip";

// This program's resources as a host of the library: those of its bundle, and if the bundle has no unzip, the system's
// unzip at a fixed path. The library itself runs gunzip at a fixed path.
class ToolBundle final : public HostBundle {
 public:
  explicit ToolBundle(std::shared_ptr<HostBundle> bundle) : bundle_(std::move(bundle)) {}

  std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                             const std::string& directory) override {
    auto path = bundle_->pathForResource(name, type, directory);
    std::error_code unreadable;
    const bool systems = !path && name == "unzip" && type.empty() && directory.empty() &&
                         std::filesystem::is_regular_file(kSystemUnzip, unreadable);
    return systems ? kSystemUnzip : path;
  }

 private:
  std::shared_ptr<HostBundle> bundle_;
};

// Shows that work of unknown length is in progress: a moving bar, on a terminal only.
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

void requireReadableFile(const std::string& file) {
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  if (error) throw Failure(file, error.message(), kUntouched);
  if (!std::filesystem::is_regular_file(status)) throw Failure(file, "not a regular file", kUntouched);
  if (!std::ifstream(file)) throw Failure::ofErrno(file, errno, kUntouched);
}

// The library passes paths to a shell in double quotes, where these characters keep their meaning. A file name could
// contain a command, and the shell would run it.
void requireHarmlessToTheShell(const std::string& path) {
  if (path.find_first_of("\"$`\\") == std::string::npos) return;
  throw Failure(path, "cannot be measured: the path contains \", $, ` or \\, which the shell would interpret",
                kUntouched);
}

// unzip treats the archive's file name, but not its folder, as a pattern and unpacks every file that matches.
void requireNoPattern(const std::string& file) {
  if (std::filesystem::path(file).filename().string().find_first_of("*?[") == std::string::npos) return;
  throw Failure(file, "cannot be measured: the name contains *, ? or [, which unzip treats as a pattern", kUntouched);
}

std::string requiredUnzip() {
  const auto unzip = platform().hostBundle->pathForResource("unzip", "", "");
  if (!unzip) {
    throw Failure("unzip", "needed for .zip images, but found neither in vorlix's resources nor in /usr/bin",
                  kUntouched);
  }
  requireHarmlessToTheShell(*unzip);
  return *unzip;
}

// For an encrypted member, unzip prompts for a password. The library captures the prompt as output, so the user would
// not see why the program waits. unzip's list of an archive has one line per member; its type is a capital letter (B or
// T) if the member is encrypted.
void requireNoPassword(const std::string& unzip, const std::string& file) {
  const std::string command = "\"" + unzip + "\" -Z \"" + file + "\" 2>/dev/null";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> list(popen(command.c_str(), "r"), pclose);
  if (!list) throw Failure::ofErrno(unzip, errno, kUntouched);
  constexpr size_t kLine = 1024;  // only a long member name makes a line longer; the type is in the line's first part
  std::array<char, kLine> line;
  const std::regex encrypted("^\\S+ +\\S+ \\S+ +[0-9]+ [BT]");
  while (std::fgets(line.data(), kLine, list.get()) != nullptr) {
    if (!std::regex_search(line.data(), encrypted)) continue;
    throw Failure(file, "encrypted; cannot be unpacked without its password", kUntouched);
  }
}

// Protects a name that starts with a dash, which gunzip and unzip would take for an option.
std::string unmistakable(const std::string& file) {
  return file.starts_with('-') ? "./" + file : file;
}

std::string sizeInWords(long long size) {
  constexpr long long kSmallestUnit = 1000;
  const std::string bytes = std::to_string(size) + " bytes";
  if (size < kSmallestUnit) return bytes;
  return bytes + " (" + stringWithHumanReadableInt(Number::numberWithLongLong(size)) + ")";
}

void measureImage(const std::string& file, bool json) {
  requireReadableFile(file);
  const std::string extension = std::filesystem::path(file).extension();
  if (extension != ".gz" && extension != ".zip") {
    throw Failure(file, "only images whose names end in .gz or .zip are measured", kUntouched);
  }
  requireHarmlessToTheShell(file);
  if (extension == ".zip") {
    Platform withUnzip = platform();
    withUnzip.hostBundle = std::make_shared<ToolBundle>(withUnzip.hostBundle);
    setPlatform(std::move(withUnzip));
    requireNoPattern(file);
    requireNoPassword(requiredUnzip(), unmistakable(file));
  }

  const LibraryLog log;
  const auto volume = QDVolume::init();
  volume->setFilePath(unmistakable(file));
  const auto token = NotificationCenter::defaultCenter().addObserver(
      kDisksChangedNotification, volume.get(), [&](const Notification&) {
        if (volume->totalSize() == "-1") std::fprintf(stderr, "measuring %s\n", printable(file).c_str());
      });
  volume->updateSize();
  {
    ActivityBar bar;
    const std::shared_ptr<RunLoop> loop = platform().runLoops->current();
    while (volume->wrapperArray() && !volume->wrapperArray()->empty()) {
      loop->run(kDefaultRunLoopMode, kStep);
      bar.move();
    }
  }
  NotificationCenter::defaultCenter().removeObserver(token);

  const std::string count = volume->totalSize().value_or("");
  constexpr int kDecimal = 10;
  const long long size = std::strtoll(count.c_str(), nullptr, kDecimal);
  // Error messages of the unpacking program only reach the log; the size is that of the bytes unpacked so far.
  if (log.text() != count + "\n") {
    log.print();
    throw Failure(file, "unpacking reported errors", std::to_string(size) + " bytes were unpacked");
  }
  if (json) {
    Json::object({{"version", kJsonVersion}, {"file", file}, {"size", size}}).print();
  } else {
    std::printf("%s\n", sizeInWords(size).c_str());
  }
}

}  // namespace

void addImageSizeCommand(Command& top, int& status) {
  const auto file = std::make_shared<std::string>();
  const auto json = std::make_shared<bool>(false);
  Command size = top.addCommand("image-size", "Measure the unpacked size of a .gz or .zip disk image");
  size.addOption("FILE", *file, "The image; its name must end in .gz or .zip").completes(ValueKind::file).required();
  size.addFlag("--json", *json, "Print JSON");
  size.setFooter(
      "The image is unpacked by gunzip, or by unzip from vorlix's resources or from /usr/bin. The unpacked bytes are\n"
      "counted and not written anywhere. On a terminal, a moving bar shows the activity.\n"
      "Paths that contain \", $, ` or \\, and names of .zip images that contain *, ? or [, are refused.\n"
      "Exit status: 0 success; 2 error, also if the unpacking program reports one, which is shown.\n"
      "The library's log is /tmp/quandrel.log.");
  size.setExamples({"vorlix image-size windows.img.gz"});
  size.setAction([file, json, &status] {
    measureImage(*file, *json);
    status = kDone;
  });
}

}  // namespace vorlix::tool
