// SPDX-License-Identifier: Apache-2.0
//
// The one form of requirement that this system supports.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// Requires a chain to an installed anchor and an organisational unit in the leaf certificate.
struct SigningRequirement {
  std::string organisationalUnit;
};

/// Parses "anchor apple generic and certificate leaf[subject.OU] = <unit>". The unit is a word of letters and digits,
/// or any text in double quotes that contains no double quote and no backslash. Blanks must separate words and may
/// separate other tokens. Absent for any other text, because an unknown clause must not be ignored.
std::optional<SigningRequirement> parseSigningRequirement(std::string_view text);

}  // namespace vorlix
