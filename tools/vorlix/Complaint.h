// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vorlix::tool {

/// Says on standard error what is wrong, after the program's name. What was printed before is seen before it. Control
/// characters, which a file name or a label may hold, become "?".
void complain(const std::string& text);

}  // namespace vorlix::tool
