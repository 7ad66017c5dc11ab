// SPDX-License-Identifier: Apache-2.0
#include "Log.h"

#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemLog.h>
#include <Vorlix/platform/SystemPaths.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "Arguments.h"

namespace vorlix {
namespace {

constexpr size_t kMessageSize = 1024;

thread_local LogCapture* innermostCapture = nullptr;

// The log has a predictable name in a folder that everyone can write to, and root appends to it. So this does not
// follow a link, does not block on a FIFO, and writes only to a regular file without a second name, because a hard link
// could lead to anybody's file. It creates the file in a separate step: the kernel may refuse root an open with O_CREAT
// of a file that another user has made there, although it allows a plain open.
int openLog(const char* path) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  constexpr mode_t kMode = 0666;  // less the process's umask
  int descriptor = open(path, kFlags);
  if (descriptor < 0 && errno == ENOENT) {
    descriptor = open(path, kFlags | O_CREAT | O_EXCL, kMode);
    if (descriptor < 0 && errno == EEXIST) descriptor = open(path, kFlags);
  }
  if (descriptor < 0) return -1;
  struct stat status = {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink > 1) {
    close(descriptor);
    return -1;
  }
  return descriptor;
}

void writeAll(int descriptor, const char* bytes, size_t count) {
  while (count > 0) {
    const ssize_t written = write(descriptor, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // a log that cannot be written never fails its caller
    bytes += written;
    count -= static_cast<size_t>(written);
  }
}

}  // namespace

std::string logFilePath() {
  return platform().systemPaths->logFile();
}

void logMessage(const char* format, ...) {
  char message[kMessageSize];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  if (length >= 0) logLine(message);
}

void logException(const char* function, const std::exception& error) noexcept {
  logMessage("%s: %s\n", function, error.what());
}

void logToSystem(const std::string& text) {
  std::string marked;
  for (const char c : text) {
    marked += c;
    if (c == '\n') marked += "Vorlix";
  }
  platform().systemLog->warn(marked);
}

bool canOpenLog() {
  const int log = openLog(logFilePath().c_str());
  if (log < 0) return false;
  close(log);
  return true;
}

LogCapture::LogCapture(File file) : file_(file), outer_(innermostCapture) {
  innermostCapture = this;
}

LogCapture::~LogCapture() {
  innermostCapture = outer_;
}

bool LogCapture::collect(std::string_view message) {
  if (innermostCapture == nullptr) return true;
  innermostCapture->text_.append(message);
  return innermostCapture->file_ == File::written;
}

}  // namespace vorlix

int logLine(const char* message) try {
  const int callersErrno = errno;
  message = vorlix::orEmpty(message);
  const size_t length = strnlen(message, vorlix::kMessageSize);
  if (!vorlix::LogCapture::collect({message, length})) return 0;
  const int log = vorlix::openLog(vorlix::logFilePath().c_str());
  if (log < 0) {
    vorlix::writeAll(STDERR_FILENO, "error opening log file", 22);
  } else {
    vorlix::writeAll(log, message, length);
    close(log);
  }
  errno = callersErrno;
  return 0;
} catch (const std::exception&) {
  return 0;  // a message for which there is no memory is lost
}
