// SPDX-License-Identifier: Apache-2.0
//
// Names of keys and values. The registry compares them without regard to case.
#pragma once

#include <string>
#include <string_view>

namespace vorlix::registry {

/// Makes upperCase() handle the letters of all scripts in any user's locale. Changes the process's LC_CTYPE.
void useUnicodeLetters();

/// Returns a name in upper case. As in the registry, each character of the Basic Multilingual Plane becomes one
/// character; others stay. Two names are equal if their upper-case forms are equal.
/// @param name  well-formed UTF-8
std::u32string upperCase(std::string_view name);

}  // namespace vorlix::registry
