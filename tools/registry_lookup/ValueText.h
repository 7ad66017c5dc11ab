// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Hive.h"

namespace vorlix::registry {

/// The data as lines of text in UTF-8, each with its line feed.
///
/// REG_SZ, REG_EXPAND_SZ: the string up to its NUL, nothing expanded. REG_MULTI_SZ: one string a line, up to the empty
/// string that ends the list. Code units that form no character become U+FFFD. REG_DWORD, REG_DWORD_BIG_ENDIAN,
/// REG_QWORD: the unsigned number in decimal, if the data has the number's size. Everything else: the bytes in
/// lower-case hexadecimal.
std::string valueText(const RegistryValue& value);

}  // namespace vorlix::registry
