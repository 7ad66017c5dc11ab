// SPDX-License-Identifier: Apache-2.0
//
// The rules that all file copies share, whichever system call copies.
#pragma once

#include <Vorlix/platform/SystemError.h>

#include <optional>
#include <string>

namespace vorlix {

/// Returns the text that FileCopy reports: the reason first, then the path.
std::string copyReason(const SystemError& failure);

std::string withoutTrailingSlashes(std::string path);

/// Returns why `source` must not be copied to `destination`: it does not exist, the destination exists, or a folder
/// would be copied into itself. Absent if it can be copied.
std::optional<SystemError> copyRefusal(const std::string& source, const std::string& destination);

}  // namespace vorlix
