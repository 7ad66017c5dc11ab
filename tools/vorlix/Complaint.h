// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vorlix::tool {

/// Prints an error or a warning on standard error, after the program's name. Flushes standard output first, so that
/// earlier output appears first. Control characters, which a file name or a label may hold, become "?".
void complain(const std::string& text);

/// Whether the user asked for messages that seldom matter. The command line's flag --verbose sets it.
bool& isVerbose();

}  // namespace vorlix::tool
