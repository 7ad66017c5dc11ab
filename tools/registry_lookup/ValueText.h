// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Hive.h"

namespace vorlix::registry {

/// Returns a value's data as lines of UTF-8 text. Each line ends with a line feed.
///
/// REG_SZ, REG_EXPAND_SZ: the string up to its NUL; variables are not expanded. REG_MULTI_SZ: one string per line, up
/// to the empty string that ends the list. Invalid UTF-16 becomes U+FFFD. REG_DWORD, REG_DWORD_BIG_ENDIAN, REG_QWORD:
/// the unsigned number in decimal, if the data has the number's size. Everything else: the bytes in lower-case
/// hexadecimal.
std::string valueText(const RegistryValue& value);

}  // namespace vorlix::registry
