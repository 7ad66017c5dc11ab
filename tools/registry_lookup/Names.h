// SPDX-License-Identifier: Apache-2.0
//
// Names of keys and values, which the registry compares without regard to case.
#pragma once

#include <string>
#include <string_view>

namespace vorlix::registry {

/// Lets upperCase() know the letters of all scripts, whatever the user's locale is. Changes the process's LC_CTYPE.
void useUnicodeLetters();

/// A well-formed UTF-8 name with each character of the Basic Multilingual Plane in upper case, one for one, as the
/// registry does it. Two names are equal if this is.
std::u32string upperCase(std::string_view name);

}  // namespace vorlix::registry
