// SPDX-License-Identifier: Apache-2.0
/// @file
/// Bytes as hexadecimal digits.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vorlix {

/// Returns the value of a hexadecimal digit of either case, or -1 for any other character.
constexpr int hexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

/// Appends a byte as two digits in lower case.
inline void appendHex(std::string& text, uint8_t byte) {
  constexpr const char* kDigits = "0123456789abcdef";
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

/// Appends a byte as two digits in upper case.
inline void appendUpperHex(std::string& text, uint8_t byte) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  text += kDigits[byte >> 4];
  text += kDigits[byte & 15];
}

/// Returns bytes as digits in lower case, two for each.
inline std::string hexText(std::span<const uint8_t> bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const uint8_t byte : bytes) appendHex(text, byte);
  return text;
}

}  // namespace vorlix
