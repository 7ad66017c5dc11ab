// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Unpacking.h>

namespace vorlix {

/// Unpacks with zlib and libarchive (unpacking/), through UnpackerTable.h.
class PosixUnpacking final : public Unpacking {
 public:
  std::unique_ptr<UnpackedBytes> open(PackedFormat format, std::shared_ptr<PackedBytes> packed,
                                      std::string& reason) override;
};

}  // namespace vorlix
