// SPDX-License-Identifier: Apache-2.0
//
// SHA-256 (FIPS 180-4). Computed here and not by a system's library: journals and names of backups need nothing else of
// one, and loading it takes longer than most commands do. Nothing here is secret, so time may depend on the bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix {

/// SHA-256 of bytes, as 64 hexadecimal digits in lower case.
std::string sha256(std::span<const uint8_t> bytes);

}  // namespace vorlix
