// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/BlockCoding.h>

namespace vorlix {

/// By the functions of BlockCodingTable.h.
class PosixBlockCoding final : public BlockCoding {
 public:
  std::unique_ptr<BlockCoder> newCoder(std::string& reason) override;
  std::unique_ptr<BlockHash> newHash(std::string& reason) override;
};

}  // namespace vorlix
