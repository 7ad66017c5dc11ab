// SPDX-License-Identifier: Apache-2.0
#include "SteppedSource.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace vorlix {

ImageSource::~ImageSource() = default;

SteppedSource::SteppedSource(SourceParts parts)
    : name_(std::move(parts.name)), content_(std::move(parts.content)), largestSize_(parts.largestSize) {
  facts_ = std::move(parts.facts);
}

uint64_t SteppedSource::bytesRead() const {
  const uint64_t position = content_->file().position();
  return std::min(position, content_->file().size().value_or(position));  // a damaged image may lead behind its end
}

ImagePiece SteppedSource::failed(std::string reason) const {
  return {ImagePiece::Kind::failure, position_, 0, {name_, std::move(reason)}};
}

ImagePiece SteppedSource::next(std::span<uint8_t> buffer) {
  return checkedStep(buffer.first(std::min(buffer.size(), kLargestPiece)), std::numeric_limits<uint64_t>::max());
}

ImagePiece SteppedSource::checkedStep(std::span<uint8_t> buffer, uint64_t most) {
  if (last_) return *last_;
  ImagePiece piece = step(buffer, most);
  if (position_ > largestSize_ || piece.length > largestSize_ - position_) {
    piece = failed("it is larger than the " + std::to_string(largestSize_) + " bytes that there is room for");
  }
  position_ += piece.length;
  if (piece.kind == ImagePiece::Kind::end || piece.kind == ImagePiece::Kind::failure) last_ = piece;
  return piece;
}

std::optional<ImageFailure> SteppedSource::moveTo(uint64_t offset) {
  constexpr size_t kDroppedPiece = size_t{256} << 10;
  if (!last_ && offset < position_) last_ = failed("it cannot be read backwards");
  if (!last_) jumpTowards(offset);
  std::vector<uint8_t> dropped(!last_ && position_ < offset ? kDroppedPiece : 0);
  while (!last_ && position_ < offset) {
    const uint64_t most = offset - position_;
    checkedStep(std::span(dropped).first(std::min<uint64_t>(dropped.size(), most)), most);
  }
  if (last_ && last_->kind == ImagePiece::Kind::failure) return last_->failure;
  return std::nullopt;
}

}  // namespace vorlix
