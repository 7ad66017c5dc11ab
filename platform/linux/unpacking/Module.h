// SPDX-License-Identifier: Apache-2.0
//
// What unpacking.so exports. The module lies in a folder with the library's major version in its name, so that both
// sides of this call come from one build.
#pragma once

#include <type_traits>

#include "platform/posix/UnpackerTable.h"

namespace vorlix {

using UnpackerTableEntry = const UnpackerTable*();

inline constexpr const char* kUnpackerTableEntry = "vorlix_unpacker_table";

}  // namespace vorlix
