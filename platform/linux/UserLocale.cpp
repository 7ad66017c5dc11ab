// SPDX-License-Identifier: Apache-2.0
#include "UserLocale.h"

#include <locale>
#include <stdexcept>

namespace vorlix {
namespace {

std::string utf8(char32_t character) {
  const auto byte = [&](char32_t lead, unsigned shift) {
    return static_cast<char>(lead | (character >> shift & 0x3F));
  };
  if (character < 0x80) return {static_cast<char>(character)};
  if (character < 0x800) return {static_cast<char>(0xC0 | character >> 6), byte(0x80, 0)};
  return {static_cast<char>(0xE0 | character >> 12), byte(0x80, 6), byte(0x80, 0)};
}

}  // namespace

// Through a locale object of its own: the process's is the host's.
std::string LinuxUserLocale::decimalSeparator() {
  try {
    const std::locale numeric(std::locale::classic(), "", std::locale::numeric);
    return utf8(static_cast<char32_t>(std::use_facet<std::numpunct<wchar_t>>(numeric).decimal_point()));
  } catch (const std::runtime_error&) {
    return ".";
  }
}

}  // namespace vorlix
