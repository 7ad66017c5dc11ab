// SPDX-License-Identifier: Apache-2.0
//
// What standard output leads to: a terminal, with a width and perhaps colours, or a file or program that wants text as
// it is.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace vorlix::tool {

/// Returns the columns of the terminal that standard output is; absent if it is none, or one of unknown width.
std::optional<size_t> outputWidth();

/// Returns whether the user's locale has UTF-8, so that output may have letters beyond ASCII.
bool showsUTF8();

enum class Color { red, green, yellow };

/// Returns the text in a colour. Standard output that is no terminal, a terminal that is "dumb", and the environment
/// variable NO_COLOR, if it is not empty, leave it as it is.
std::string colored(const std::string& text, Color color);

}  // namespace vorlix::tool
