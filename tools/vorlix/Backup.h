// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix::tool {

/// Saves bytes of a device in `folder` under a name that tells what they are of: the file name of the device, eight
/// digits of the SHA-256 of its own name (of a file: its absolute path), and the byte offset, as in
/// `mac.img-1f3a5c7e-0.bin`. @return the file's path.
///
/// The folder is made if it is missing. The file is on the medium, whole, before the call returns; until then it has
/// another name. A file of that name with the same bytes is taken as it is; one with other bytes is left alone, and the
/// new one gets a number: `mac.img-1f3a5c7e-0.2.bin`. Nobody but the user can read it. Throws Failure.
std::string saveBytes(const std::string& folder, const std::string& device, uint64_t offset,
                      std::span<const uint8_t> bytes);

/// The same under a name of its own.
std::string saveNamed(const std::string& folder, const std::string& name, std::span<const uint8_t> bytes);

/// The part of such a name that tells devices apart: `mac.img-1f3a5c7e`.
std::string backupNameOf(const std::string& device);

}  // namespace vorlix::tool
