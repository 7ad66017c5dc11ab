// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vorlix {

/// Returns the value of a hexadecimal digit of either case, or -1 for any other character.
constexpr int hexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace vorlix
