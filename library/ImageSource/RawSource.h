// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "BlockMap.h"
#include "SteppedSource.h"

namespace vorlix {

/// The bytes of a volume as they are, unpacked, with or without a block map.
class RawSource final : public SteppedSource {
 public:
  RawSource(SourceParts parts, std::optional<BlockMap> map);

 private:
  ImagePiece step(std::span<uint8_t> buffer, uint64_t most) override;
  void jumpTowards(uint64_t offset) override;

  ImagePiece stepThroughFile(std::span<uint8_t> buffer, uint64_t most);
  ImagePiece stepThroughMap(std::span<uint8_t> buffer, uint64_t most);
  ImagePiece stepInRange(std::span<uint8_t> buffer);
  ImagePiece endOfMap();
  ImagePiece cutOff() const;

  std::optional<BlockMap> map_;
  size_t range_ = 0;  // the first that does not end before the position
  std::optional<RunningHash> hash_;
  bool asksForRuns_ = true;
  DataRun run_;
};

}  // namespace vorlix
