// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/BootStore.h>

#include <string>
#include <vector>

namespace vorlix::tool {

/// Returns the partitions that a device element names, each in the form that its table has for them.
std::string partitionText(const std::vector<StorePartition>& partitions);

}  // namespace vorlix::tool
