// SPDX-License-Identifier: Apache-2.0
//
// The requirement text as far as this system can answer it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// A chain to an installed anchor, and the leaf's organisational unit.
struct SigningRequirement {
  std::string organisationalUnit;
};

/// Reads "anchor apple generic and certificate leaf[subject.OU] = <unit>". The unit is a word of letters and digits, or
/// any text between double quotes without a double quote or backslash in it. Blanks stand where the words need them and
/// may stand elsewhere between them. Absent for any other text: a clause that is not understood cannot be dropped.
std::optional<SigningRequirement> parseSigningRequirement(std::string_view text);

}  // namespace vorlix
