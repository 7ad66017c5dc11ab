// SPDX-License-Identifier: Apache-2.0
//
// What signing.so exports. The module lies in a folder with the library's major version in its name, so that both sides
// of this call come from one build.
#pragma once

#include <cstddef>

namespace vorlix {

/// signersUnit() over plain data: the unit goes to `unit`, which has room for `size` bytes, without a NUL at its end.
/// @return its length; -1 where there is none or no room for it.
using SignersUnitEntry = long(const char* signature, int file, const char* anchors, char* unit, size_t size);

inline constexpr const char* kSignersUnitEntry = "vorlix_signers_unit";

}  // namespace vorlix
