// SPDX-License-Identifier: Apache-2.0
#include "UserLocale.h"

#include "CFOwned.h"
#include "CFValue.h"

namespace vorlix {

std::string MacUserLocale::decimalSeparator() {
  const CFOwned<CFLocaleRef> locale(CFLocaleCopyCurrent());
  const CFTypeRef separator =
      locale ? CFLocaleGetValue(locale.get(), kCFLocaleDecimalSeparator) : nullptr;  // not owned
  if (separator == nullptr || CFGetTypeID(separator) != CFStringGetTypeID()) return ".";
  return textFromCF(static_cast<CFStringRef>(separator)).value_or(".");
}

}  // namespace vorlix
