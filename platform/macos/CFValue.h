// SPDX-License-Identifier: Apache-2.0
//
// Core Foundation's values as the library's own, and back.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <optional>
#include <string>

#include "CFOwned.h"

namespace vorlix {

/// Returns the text as UTF-8. Absent for null and for text that has no UTF-8 form, such as a lone surrogate.
std::optional<std::string> textFromCF(CFStringRef text);

/// Converts a boolean, number, string, data, UUID, file URL, dictionary or array. Absent for null and for a value of
/// another type, such as a date; an array omits such values.
std::optional<Value> valueFromCF(CFTypeRef value);

/// Converts the entries whose key is a string and whose value valueFromCF() converts. Empty for null.
Dictionary dictionaryFromCF(CFDictionaryRef dictionary);

/// Makes a string. Empty if `text` is not UTF-8.
CFOwned<CFStringRef> stringToCF(const std::string& text);

/// Makes the object for a value. Empty if there is none, as for text that is not UTF-8.
CFOwned<CFTypeRef> valueToCF(const Value& value);

/// Makes a dictionary. Omits values that valueToCF() does not convert.
CFOwned<CFMutableDictionaryRef> dictionaryToCF(const Dictionary& dictionary);

}  // namespace vorlix
