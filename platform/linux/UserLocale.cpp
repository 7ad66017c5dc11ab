// SPDX-License-Identifier: Apache-2.0
#include "UserLocale.h"

#include <langinfo.h>
#include <locale.h>

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

// Uses a locale object, because the process's locale belongs to the host. Only a separator outside of ASCII needs the
// whole locale, to know the encoding: loading it costs more than everything else in a listing.
std::string LinuxUserLocale::decimalSeparator() {
  if (const locale_t numeric = newlocale(LC_NUMERIC_MASK, "", nullptr)) {
    const std::string separator = nl_langinfo_l(RADIXCHAR, numeric);
    freelocale(numeric);
    if (separator.size() == 1 && static_cast<unsigned char>(separator.front()) < 0x80) return separator;
  }
  try {
    const std::locale numeric(std::locale::classic(), "", std::locale::numeric);
    return utf8(static_cast<char32_t>(std::use_facet<std::numpunct<wchar_t>>(numeric).decimal_point()));
  } catch (const std::runtime_error&) {
    return ".";
  }
}

}  // namespace vorlix
