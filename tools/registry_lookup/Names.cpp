// SPDX-License-Identifier: Apache-2.0
#include "Names.h"

#include <clocale>
#include <cwctype>

namespace vorlix::registry {
namespace {

// Removes the first character of well-formed UTF-8 from `text` and returns it.
char32_t takeCharacter(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  char32_t character = size == 1 ? lead : lead & (0x7Fu >> size);
  for (size_t i = 1; i < size; ++i) character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3Fu);
  text.remove_prefix(size);
  return character;
}

}  // namespace

void useUnicodeLetters() {
  for (const char* name : {"C.UTF-8", "en_US.UTF-8"}) {
    if (std::setlocale(LC_CTYPE, name) != nullptr) return;
  }
}

std::u32string upperCase(std::string_view name) {
  std::u32string upper;
  while (!name.empty()) {
    const char32_t character = takeCharacter(name);
    char32_t capital = character;
    if (character <= 0xFFFF) capital = static_cast<char32_t>(std::towupper(static_cast<wint_t>(character)));
    // towupper() turns the dotless i and the long s into ASCII letters; the registry does not.
    upper += character >= 0x80 && capital < 0x80 ? character : capital;
  }
  return upper;
}

}  // namespace vorlix::registry
