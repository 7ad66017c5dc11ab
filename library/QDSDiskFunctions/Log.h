// SPDX-License-Identifier: Apache-2.0
//
// How the library's own code writes to the log and to the system's log.
#pragma once

#include <Vorlix/LogCapture.h>

#include <exception>
#include <string>

namespace vorlix {

/// Formats a message and passes it to logLine(). A message is cut at 1023 characters.
void logMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Logs "<function>: <reason>" and a line feed. Exceptions must not pass through C linkage: a flat function that
/// allocates or uses a port catches std::exception, logs it here and returns what it returns after a failure. It does
/// not catch (...), because the cancellation of a thread has to pass.
void logException(const char* function, const std::exception& error) noexcept;

/// Writes a text to the system's own log at warning level, with the library's name before it and after each line feed.
void logToSystem(const std::string& text);

}  // namespace vorlix
