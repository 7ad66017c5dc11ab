// SPDX-License-Identifier: Apache-2.0
/// @file
/// Bytes as text (RFC 4648, section 4).
#pragma once

#include <Vorlix/foundation/Export.h>

#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// Standard base64 with padding, without line breaks.
VORLIX_EXPORT std::string encodeBase64(std::string_view bytes);

/// The bytes of standard base64 with padding. Absent for text that holds anything else, a line break included.
VORLIX_EXPORT std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace vorlix
