// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorlix {

/// A number of up to four bytes, the lowest one first.
inline uint32_t littleEndian(const uint8_t* bytes, size_t count) {
  uint32_t value = 0;
  for (size_t i = count; i > 0; --i) value = value << 8 | bytes[i - 1];
  return value;
}

}  // namespace vorlix
