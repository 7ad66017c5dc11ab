// SPDX-License-Identifier: Apache-2.0
//
// What file copies have in common, whatever call of the system does the work.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// The reason for a failure: the error in words and the path that it is about.
std::string copyFailure(int error, const std::string& path);

std::string withoutTrailingSlashes(std::string path);

/// Why `source` is not to be copied to `destination` at all: it is not there, the destination is, or a folder would be
/// copied into itself. Absent when nothing speaks against it.
std::optional<std::string> copyRefusal(const std::string& source, const std::string& destination);

}  // namespace vorlix
