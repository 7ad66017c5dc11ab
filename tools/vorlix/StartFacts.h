// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/StartCheck.h>

#include <cstdint>
#include <string>

namespace vorlix::tool {

/// Collects what checkStart() judges, by reading alone. Throws Failure if the disk cannot be read, has no partition
/// table, or does not use the entry that the user named.
/// @param partition  GPT entry of the volume; 0 to take the one that the MBR starts, or the only one that may hold
/// Windows.
StartFacts collectStartFacts(const std::string& disk, uint32_t partition, uint8_t type);

}  // namespace vorlix::tool
