// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

namespace vorlix {

/// Returns whether all bytes are zero; true for none. Compares them with themselves one byte further on, which the C
/// library does many bytes at a time.
inline bool areZeros(std::span<const uint8_t> bytes) {
  return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

}  // namespace vorlix
