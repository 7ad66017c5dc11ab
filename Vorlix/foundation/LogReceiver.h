// SPDX-License-Identifier: Apache-2.0
/// @file
/// Who wants to be told what the library logs.
#pragma once

#include <string>

namespace vorlix {

/// What an object answers that takes log lines. Objects that are handed to the library as delegates may derive from it
/// besides Object; those that do not are told nothing.
class LogReceiver {
 public:
  virtual ~LogReceiver() = default;

  /// One message, without a line feed at its end. Keyword form: `log:`.
  virtual void log(const std::string& line) = 0;
};

}  // namespace vorlix
