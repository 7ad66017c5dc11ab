// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace vorlix {

/// A range of bytes on a disk.
struct Extent {
  uint64_t offset = 0;
  uint64_t size = 0;
};

}  // namespace vorlix
