// SPDX-License-Identifier: Apache-2.0
//
// The unchanged output of a program.
#pragma once

#include <Vorlix/foundation/Task.h>

#include <optional>
#include <string>

namespace vorlix {

/// Runs a program and returns what it writes to standard output until it closes that. Nobody reads its standard error,
/// and its exit status is not waited for. Absent if the output is not UTF-8. @throws std::system_error if the program
/// cannot be launched.
std::optional<std::string> standardOutputOf(const Task& task);

}  // namespace vorlix
