// SPDX-License-Identifier: Apache-2.0
//
// How the unpacked size of a compressed image file is measured.
#pragma once

#include <string>
#include <string_view>

namespace vorlix {

/// Returns the text after the last dot of a path's last component; empty if the dot is its first or last character.
std::string_view pathExtension(std::string_view path);

/// Returns the shell command that prints the unpacked size of a file with this extension, "gz" or "zip".
std::string measuringCommand(std::string_view extension, const std::string& path);

}  // namespace vorlix
