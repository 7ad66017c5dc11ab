// SPDX-License-Identifier: Apache-2.0
/// @file
/// SHA-256 (FIPS 180-4), for journals. It is not used for secrets.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <cstdint>
#include <span>
#include <string>

namespace vorlix {

/// Returns the SHA-256 of bytes as 64 hexadecimal digits in lower case.
VORLIX_EXPORT std::string sha256(std::span<const uint8_t> bytes);

}  // namespace vorlix
