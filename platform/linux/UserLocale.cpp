// SPDX-License-Identifier: Apache-2.0
#include "UserLocale.h"

#include <Vorlix/foundation/Utf8.h>
#include <langinfo.h>
#include <locale.h>

#include <locale>
#include <stdexcept>

namespace vorlix {
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
    std::string separator;
    appendUtf8(separator, static_cast<uint32_t>(std::use_facet<std::numpunct<wchar_t>>(numeric).decimal_point()));
    return separator;
  } catch (const std::runtime_error&) {
    return ".";
  }
}

}  // namespace vorlix
