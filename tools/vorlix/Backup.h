// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix::tool {

/// Saves bytes of a device as `<folder>/<file name of the device>-<byte offset>.bin`, brought to the medium before it
/// returns. The folder is made if it is missing; a file that exists is never touched. Throws Failure. @return the
/// file's path.
std::string saveBytes(const std::string& folder, const std::string& device, uint64_t offset,
                      std::span<const uint8_t> bytes);

/// The same under a name of its own.
std::string saveNamed(const std::string& folder, const std::string& name, std::span<const uint8_t> bytes);

}  // namespace vorlix::tool
