// SPDX-License-Identifier: Apache-2.0
/// @file
/// Checking, repairing and writing UTF-8.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vorlix {

/// Returns whether the bytes are well-formed UTF-8 (Unicode 15, table 3-7): no overlong form, no surrogate, nothing
/// beyond U+10FFFF, no incomplete character.
VORLIX_EXPORT bool isUtf8(std::string_view bytes);

/// Returns the text with U+FFFD instead of each byte that is not part of well-formed UTF-8.
VORLIX_EXPORT std::string repairedUtf8(std::string_view bytes);

/// Returns the length of well-formed text in UTF-16 code units: one for a character, two beyond U+FFFF.
VORLIX_EXPORT size_t utf16Length(std::string_view text);

/// Appends a character, at most U+10FFFF, as one to four bytes.
inline void appendUtf8(std::string& text, uint32_t character) {
  const auto put = [&](uint32_t byte) { text += static_cast<char>(byte); };
  if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0U | character >> 6);
    put(0x80U | (character & 0x3FU));
  } else if (character < 0x10000) {
    put(0xE0U | character >> 12);
    put(0x80U | (character >> 6 & 0x3FU));
    put(0x80U | (character & 0x3FU));
  } else {
    put(0xF0U | character >> 18);
    put(0x80U | (character >> 12 & 0x3FU));
    put(0x80U | (character >> 6 & 0x3FU));
    put(0x80U | (character & 0x3FU));
  }
}

}  // namespace vorlix
