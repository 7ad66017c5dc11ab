// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/QDSDiskFunctions.h>

#include "Json.h"

namespace vorlix::tool {

/// A slot of an MBR as an object.
Json slotJson(const MBRPartitionEntry& slot);

}  // namespace vorlix::tool
