// SPDX-License-Identifier: Apache-2.0
//
// Opens a file with arbitrary content as the source of a restore and reads it: ntfsclone's images, WIMs, packed and raw
// ones. The last byte selects where reading begins.
#include <Vorlix/ImageSource.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace {

constexpr uint64_t kLargestVolume = uint64_t{64} << 20;
constexpr size_t kBuffer = 5000;

void checkFacts(const vorlix::ImageFacts& facts) {
  FUZZ_CHECK(facts.start.size() <= 4096);
  FUZZ_CHECK((facts.kind == vorlix::ImageKind::wim) == facts.wim.has_value());
  FUZZ_CHECK(!facts.description.empty());
  FUZZ_CHECK(!facts.isVerified && facts.blockMap.empty() && !facts.ranges);
  if (facts.volume) {
    FUZZ_CHECK(facts.volume->sectorSize >= 512 && facts.volume->sectorSize <= 4096);
    FUZZ_CHECK(facts.volume->size() / facts.volume->sectorSize == facts.volume->sectorCount);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Workplace workplace;
  const std::string path = workplace.addFile("image", std::string(reinterpret_cast<const char*>(data), size));
  vorlix::ImageFailure failure;
  const auto source = vorlix::openImageSource(path, {kLargestVolume}, failure);
  FUZZ_CHECK((source == nullptr) == !failure.reason.empty());
  if (source == nullptr) return 0;
  checkFacts(source->facts());

  uint64_t position = uint64_t{data[size - 1]} * 1000;
  if (source->moveTo(position)) return 0;
  std::vector<uint8_t> buffer(kBuffer);
  bool isFirst = true;
  for (;;) {
    const vorlix::ImagePiece piece = source->next(buffer);
    const bool isBehindEnd = isFirst && piece.kind == vorlix::ImagePiece::Kind::end && piece.offset < position;
    FUZZ_CHECK(piece.offset == position || isBehindEnd);
    isFirst = false;
    FUZZ_CHECK(source->bytesRead() <= size);
    if (piece.kind == vorlix::ImagePiece::Kind::failure) {
      FUZZ_CHECK(!piece.failure.reason.empty() && piece.failure.subject == path);
      return 0;
    }
    if (piece.kind == vorlix::ImagePiece::Kind::end) {
      FUZZ_CHECK(!source->facts().size || piece.offset == *source->facts().size);
      return 0;
    }
    FUZZ_CHECK(piece.length > 0 && piece.length <= kLargestVolume - position);
    FUZZ_CHECK(piece.kind != vorlix::ImagePiece::Kind::data || piece.length <= kBuffer);
    position += piece.length;
  }
}
