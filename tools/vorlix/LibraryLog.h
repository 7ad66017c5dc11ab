// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/LogCapture.h>

#include <string>

namespace vorlix::tool {

/// Captures what the library logs while a command calls it. If the log file cannot be opened, as when it is another
/// user's, commands go on without it; only with --verbose is that said, once.
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
