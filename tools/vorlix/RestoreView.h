// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "RestorePreparation.h"

namespace vorlix::tool {

/// Prints what a restore would do as JSON.
void printRestorePlanJson(const RestoreRequest& request, const RestorePreparation& prepared);

}  // namespace vorlix::tool
