// SPDX-License-Identifier: Apache-2.0
//
// How the library's own code writes to the log, and how tests and tools look at what was written.
#pragma once

#include <string>
#include <string_view>

namespace vorlix {

/// Formats a message and hands it to logLine(). A message is cut at 1023 characters.
void logMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Path of the log file, as the platform's SystemPaths tells it.
std::string logFilePath();

/// Tells whether the log file can be appended to now. It is made if it is missing.
bool canOpenLog();

/// Collects what the calling thread logs during the object's life. Captures nest: the innermost one collects.
class LogCapture {
 public:
  /// Whether the log file gets the messages as well.
  enum class File { written, leftAlone };

  explicit LogCapture(File file = File::written);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::string& text() const { return text_; }

  /// Gives a message to the calling thread's innermost capture, if there is one. @return whether the log file gets it.
  static bool collect(std::string_view message);

 private:
  File file_;
  std::string text_;
  LogCapture* outer_;
};

}  // namespace vorlix
