// SPDX-License-Identifier: Apache-2.0
//
// What signing.so exports. The name of the module's folder has the library's major version, so that both sides of this
// call come from one build.
#pragma once

#include <cstddef>

namespace vorlix {

/// signersUnit() with plain data. Writes the unit to `unit`, which has `size` bytes, without a NUL at its end.
/// @return the length of the unit; -1 if there is none or it does not fit.
using SignersUnitEntry = long(const char* signature, int file, const char* anchors, char* unit, size_t size);

inline constexpr const char* kSignersUnitEntry = "vorlix_signers_unit";

}  // namespace vorlix
