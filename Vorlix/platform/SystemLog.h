// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's own log.
#pragma once

#include <string>

namespace vorlix {

/// The format of a message in the system's log, on every system.
inline constexpr const char* kSystemLogFormat = "Vorlix: %s";

/// Port: writes to the system's log.
class SystemLog {
 public:
  virtual ~SystemLog() = default;

  /// Writes one message at warning level: `text`, up to the first zero byte, in kSystemLogFormat. Does nothing if there
  /// is no log. Any thread may call this.
  virtual void warn(const std::string& text) = 0;
};

}  // namespace vorlix
