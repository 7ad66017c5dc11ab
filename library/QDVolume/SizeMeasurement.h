// SPDX-License-Identifier: Apache-2.0
//
// How the unpacked size of a compressed image file is measured.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// What follows the last dot of the path's last component; empty where the dot is its first or last character.
std::string_view pathExtension(std::string_view path);

/// The shell's command line that prints the unpacked size of a file with this extension, "gz" or "zip".
std::string measuringCommand(std::string_view extension, const std::string& path);

}  // namespace vorlix
