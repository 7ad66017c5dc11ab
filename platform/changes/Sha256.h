// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix {

/// SHA-256 of bytes, as 64 hexadecimal digits in lower case. Each system's own library computes it.
std::string sha256(std::span<const uint8_t> bytes);

/// Digits of a hash.
inline std::string hexadecimal(std::span<const uint8_t> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) text.append({kDigits[byte >> 4], kDigits[byte & 15]});
  return text;
}

}  // namespace vorlix
