// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/UserLocale.h>
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

// Through a locale object of its own: the process's is the host's. A separator outside ASCII takes the whole locale,
// whose other parts tell the encoding; loading those costs more than all else that a listing does.
std::string userDecimalSeparator() {
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
