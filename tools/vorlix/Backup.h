// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "DiskTables.h"

namespace vorlix::tool {

/// Saves a sector as `<folder>/<file name of the device>-<byte offset>.bin`, brought to the medium before it returns.
/// The folder is made if it is missing; a file that exists is never touched. Throws Failure. @return the file's path.
std::string saveSector(const std::string& folder, const std::string& device, uint64_t offset, const Sector& bytes);

}  // namespace vorlix::tool
