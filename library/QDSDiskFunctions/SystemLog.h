// SPDX-License-Identifier: Apache-2.0
//
// The few messages that go to the system's own log instead of the log file.
#pragma once

#include <string>

namespace vorlix {

/// Writes a system-log line: the text at warning level, with the library's name before it and after each line feed.
void logToSystem(const std::string& text);

}  // namespace vorlix
