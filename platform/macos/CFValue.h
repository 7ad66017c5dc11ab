// SPDX-License-Identifier: Apache-2.0
//
// Core Foundation's values as the library's own, and back.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <optional>
#include <string>

#include "CFOwned.h"

namespace vorlix {

/// Text as UTF-8. Absent for null and for text that has no UTF-8 form, such as a lone surrogate.
std::optional<std::string> textFromCF(CFStringRef text);

/// A boolean, number, string, data, UUID, file URL, dictionary or array. Absent for null and for a value of another
/// type, such as a date; in an array such values are left out.
std::optional<Value> valueFromCF(CFTypeRef value);

/// The values of a dictionary that valueFromCF() knows, under those of its keys that are strings. Empty for null.
Dictionary dictionaryFromCF(CFDictionaryRef dictionary);

/// A new string. Empty where `text` is not UTF-8.
CFOwned<CFStringRef> stringToCF(const std::string& text);

/// A new object of the same meaning. Empty where there is none, as for text that is not UTF-8.
CFOwned<CFTypeRef> valueToCF(const Value& value);

/// A new dictionary. Values without a Core Foundation form are left out.
CFOwned<CFMutableDictionaryRef> dictionaryToCF(const Dictionary& dictionary);

}  // namespace vorlix
