// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/Utf8.h>

#include <algorithm>
#include <cstdint>

namespace vorlix {
namespace {

// Returns the size in bytes of the character at the start of the text; 0 if that character is not well-formed.
size_t characterSize(std::string_view text) {
  const auto byteAt = [&](size_t place) { return static_cast<uint8_t>(text[place]); };
  const uint8_t lead = byteAt(0);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < size) return 0;
  // After some lead bytes the range of the second byte is narrower. It excludes overlong forms, surrogates and numbers
  // that are too large.
  const uint8_t least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const uint8_t most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byteAt(1) < least || byteAt(1) > most) return 0;
  for (size_t i = 2; i < size; ++i) {
    if (byteAt(i) < 0x80 || byteAt(i) > 0xBF) return 0;
  }
  return size;
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t size = characterSize(bytes);
    if (size == 0) return false;
    bytes.remove_prefix(size);
  }
  return true;
}

std::string repairedUtf8(std::string_view bytes) {
  constexpr const char* kReplacement = "\xEF\xBF\xBD";
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const size_t size = characterSize(bytes);
    if (size == 0) {
      text += kReplacement;
    } else {
      text += bytes.substr(0, size);
    }
    bytes.remove_prefix(std::max<size_t>(size, 1));
  }
  return text;
}

size_t utf16Length(std::string_view text) {
  size_t units = 0;
  for (const char unit : text) {
    const auto byte = static_cast<uint8_t>(unit);
    if (byte < 0x80 || byte >= 0xC0) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

}  // namespace vorlix
