// SPDX-License-Identifier: Apache-2.0
/// @file
/// Bytes as text (RFC 4648, section 4).
#pragma once

#include <Vorlix/foundation/Export.h>

#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// Returns bytes in standard base64 with padding and without line breaks.
VORLIX_EXPORT std::string encodeBase64(std::string_view bytes);

/// Returns the bytes of standard base64 with padding. Absent if the text contains anything else, even a line break.
VORLIX_EXPORT std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace vorlix
