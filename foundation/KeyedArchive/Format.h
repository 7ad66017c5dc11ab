// SPDX-License-Identifier: Apache-2.0
//
// Names of the container that both directions use, and the text form of file URLs.
#pragma once

#include <Vorlix/foundation/URL.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorlix::archive {

inline constexpr const char* kArchiverName = "NSKeyedArchiver";
inline constexpr uint64_t kVersion = 100000;
inline constexpr const char* kRootKey = "root";
inline constexpr const char* kNull = "$null";
inline constexpr const char* kClassKey = "$class";

/// A user's key as it stands in a record's dictionary.
inline std::string escapedKey(const std::string& key) {
  return key.starts_with('$') ? "$" + key : key;
}

/// Text without what text must not hold: NUL, which would end it in a property list and in a path, and bytes that are
/// not UTF-8 are U+FFFD.
std::string wholeText(std::string_view text);

/// "file://" and the path, percent-encoded (RFC 8089, RFC 3986).
std::string urlText(const URL& url);

/// The file URL that a text names, resolved against `base` if it is relative and there is one. Absent for another
/// scheme or host, for a relative text without a base, and for a path that holds a NUL.
std::optional<URL> urlOfText(std::string_view text, const URL* base);

}  // namespace vorlix::archive
