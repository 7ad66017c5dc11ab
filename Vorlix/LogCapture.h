// SPDX-License-Identifier: Apache-2.0
/// @file
/// What the library logs: where the log file is, and how a host collects the messages of its own calls.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <string>
#include <string_view>

namespace vorlix {

/// Returns the path of the log file, from the platform's SystemPaths.
VORLIX_EXPORT std::string logFilePath();

/// Returns whether the log file can be opened for appending now. A missing file is created.
VORLIX_EXPORT bool canOpenLog();

/// Collects the messages that the calling thread logs during the object's life. Captures nest: the innermost one
/// collects.
class VORLIX_EXPORT LogCapture {
 public:
  /// Whether the messages go to the log file as well.
  enum class File { written, leftAlone };

  /// Begins to collect. @param file  whether the lines go to the log file as well.
  explicit LogCapture(File file = File::written);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Returns what was logged since the object was made, unchanged.
  const std::string& text() const { return text_; }

  /// Adds a message to the calling thread's innermost capture, if there is one. @return whether it goes to the log
  /// file.
  static bool collect(std::string_view message);

 private:
  File file_;
  std::string text_;
  LogCapture* outer_;
};

}  // namespace vorlix
