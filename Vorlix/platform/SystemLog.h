// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's own log.
#pragma once

#include <string>

namespace vorlix {

/// How a text is worded in the system's log, on every system.
inline constexpr const char* kSystemLogFormat = "Vorlix: %s";

class SystemLog {
 public:
  virtual ~SystemLog() = default;

  /// Writes one message at warning level: `text` in kSystemLogFormat, up to a zero byte in it. Nobody is told when
  /// there is no log. Any thread may write.
  virtual void warn(const std::string& text) = 0;
};

}  // namespace vorlix
