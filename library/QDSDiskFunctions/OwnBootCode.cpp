// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/OwnBootCode.h>

#include <algorithm>

namespace vorlix {

DiskBootCode ownBootCode() {
  return {
#include "boot/mbr.inc"
  };
}

bool lacksDiskBootCode(const Sector& sector0) {
  const auto end = sector0.begin() + static_cast<std::ptrdiff_t>(kPureBootCodeSize);
  return std::all_of(sector0.begin(), end, [](uint8_t byte) { return byte == 0; });
}

}  // namespace vorlix
