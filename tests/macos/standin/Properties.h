// SPDX-License-Identifier: Apache-2.0
//
// A simulated machine's values as the frameworks hand them out. Written apart from the adapters' own conversions, which
// are what is tested.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <Vorlix/foundation/Value.h>

#include <optional>
#include <string>

namespace vorlix::standin {

/// The caller's. Null for a value that has no such form.
CFTypeRef createObject(const Value& value);

/// The caller's.
CFMutableDictionaryRef createDictionary(const Dictionary& values);

/// The caller's; `text` is UTF-8.
CFStringRef createText(const std::string& text);

std::string textOf(CFStringRef text);

/// What a matching dictionary may hold: strings, whole numbers and booleans. Absent for anything else.
std::optional<Value> plainValue(CFTypeRef object);

}  // namespace vorlix::standin
