// SPDX-License-Identifier: Apache-2.0
//
// The text of --help. Made from the command line's definition, because the parser's own text changes with its version.
#pragma once

#include <string>

#include "CommandShape.h"

namespace vorlix::tool {

/// Returns the help text of a command.
/// @param path  the words that lead to it: "vorlix boot-code save"
std::string helpText(const CommandShape& command, const std::string& path);

}  // namespace vorlix::tool
