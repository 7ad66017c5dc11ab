// SPDX-License-Identifier: Apache-2.0
//
// How the library's own code writes to the log.
#pragma once

#include <Vorlix/LogCapture.h>

namespace vorlix {

/// Formats a message and passes it to logLine(). A message is cut at 1023 characters.
void logMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vorlix
