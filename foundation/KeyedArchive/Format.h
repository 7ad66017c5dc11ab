// SPDX-License-Identifier: Apache-2.0
//
// Names and text forms that the archiver and the unarchiver share.
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

/// Returns a user's key in the form in which a record's dictionary stores it: a leading "$" is doubled.
inline std::string escapedKey(const std::string& key) {
  return key.starts_with('$') ? "$" + key : key;
}

/// Returns a text in which U+FFFD replaces every NUL and every byte that is not UTF-8. A NUL would end the text in a
/// property list and in a path.
std::string wholeText(std::string_view text);

/// Returns "file://" and the path of a URL, percent-encoded (RFC 8089, RFC 3986).
std::string urlText(const URL& url);

/// Returns the file URL that a text names. A relative text is resolved against `base`, which may be null.
/// @return absent for another scheme or host, for a relative text without a base, for a wrong percent-encoding, and for
///         a path that contains a NUL.
std::optional<URL> urlOfText(std::string_view text, const URL* base);

}  // namespace vorlix::archive
