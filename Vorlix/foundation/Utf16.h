// SPDX-License-Identifier: Apache-2.0
/// @file
/// UTF-16, as registry hives, WIMs, GPT entries and FAT directories have it, to UTF-8 and back.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

/// Removes the first character of a text that is not empty, and returns it. Absent for a surrogate without its other
/// half, which is removed alone.
VORLIX_EXPORT std::optional<uint32_t> takeCharacter(std::u16string_view& text);

/// Returns the code units of little-endian UTF-16. A single byte at the end is left out.
VORLIX_EXPORT std::u16string utf16Units(std::span<const uint8_t> bytes);

/// Returns the text as UTF-8, with U+FFFD instead of each surrogate without its other half.
VORLIX_EXPORT std::string utf8Of(std::u16string_view text);

/// Returns the text as little-endian UTF-16, with U+FFFD instead of each byte that is not part of well-formed UTF-8.
VORLIX_EXPORT std::vector<uint8_t> utf16Bytes(std::string_view text);

}  // namespace vorlix
