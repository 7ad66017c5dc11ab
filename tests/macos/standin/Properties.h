// SPDX-License-Identifier: Apache-2.0
//
// A simulated machine's values as Core Foundation objects. Independent of the adapters' own conversions, which are
// under test.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Vorlix/foundation/Value.h>

#include <optional>
#include <string>

namespace vorlix::standin {

/// The caller owns the object. Null for a value that has no such form.
CFTypeRef createObject(const Value& value);

/// The caller owns the dictionary.
CFMutableDictionaryRef createDictionary(const Dictionary& values);

/// The caller owns the string. `text` is UTF-8.
CFStringRef createText(const std::string& text);

std::string textOf(CFStringRef text);

/// Converts the values that a matching dictionary may hold: strings, whole numbers and booleans. Absent for others.
std::optional<Value> plainValue(CFTypeRef object);

}  // namespace vorlix::standin
