// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/OwnBootCode.h>

#include "foundation/Zeros.h"

namespace vorlix {

DiskBootCode ownBootCode() {
  return {
#include "boot/mbr.inc"
  };
}

bool lacksDiskBootCode(const Sector& sector0) {
  return areZeros(std::span(sector0).first(kPureBootCodeSize));
}

}  // namespace vorlix
