// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/LogCapture.h>

#include <string>

namespace vorlix::tool {

/// Captures what the library logs while a command calls it. If the log file cannot be opened, prints one warning on
/// standard error instead of one per message.
class LibraryLog {
 public:
  LibraryLog();

  const std::string& text() const { return capture_.text(); }

  /// Prints the captured log on standard error.
  void print() const;

 private:
  LogCapture capture_;
};

}  // namespace vorlix::tool
