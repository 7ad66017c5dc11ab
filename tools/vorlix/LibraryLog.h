// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "library/QDSDiskFunctions/Log.h"

#include <string>

namespace vorlix::tool {

/// What the library logs while a command calls it. A log file that cannot be opened is told once, on standard error,
/// instead of once a message.
class LibraryLog {
 public:
  LibraryLog();

  const std::string& text() const { return capture_.text(); }

  /// Shows it on standard error.
  void print() const;

 private:
  LogCapture capture_;
};

}  // namespace vorlix::tool
