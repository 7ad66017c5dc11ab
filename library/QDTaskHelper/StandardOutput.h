// SPDX-License-Identifier: Apache-2.0
//
// What a program prints, as it is.
#pragma once

#include <Vorlix/foundation/Task.h>

#include <optional>
#include <string>

namespace vorlix {

/// Runs a program and takes what it writes to standard output until that is closed. Its standard error goes to a pipe
/// that nobody reads; its exit status is not waited for. Absent if the output is not UTF-8. @throws std::system_error
/// if the program cannot be launched.
std::optional<std::string> standardOutputOf(const Task& task);

}  // namespace vorlix
