// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix::tool {

/// Saves bytes of a device in a file in `folder`. The file's name consists of the device's file name, eight digits of
/// the SHA-256 of the device's full name (for an image file its absolute path), and the byte offset, as in
/// `mac.img-1f3a5c7e-0.bin`. @return the file's path.
///
/// Creates the folder if it is missing. The file is complete and synced before it gets its name and before the call
/// returns. If a file of that name has the same bytes, it is kept and returned. If it has other bytes, it is kept, and
/// the new file gets a number: `mac.img-1f3a5c7e-0.2.bin`. Only the user can read the new file. Throws Failure.
std::string saveBytes(const std::string& folder, const std::string& device, uint64_t offset,
                      std::span<const uint8_t> bytes);

/// Does the same with the given file name.
std::string saveNamed(const std::string& folder, const std::string& name, std::span<const uint8_t> bytes);

/// Returns the part of such a file name that identifies the device: `mac.img-1f3a5c7e`.
std::string backupNameOf(const std::string& device);

}  // namespace vorlix::tool
