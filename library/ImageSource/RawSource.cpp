// SPDX-License-Identifier: Apache-2.0
#include "RawSource.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/Zeros.h"

namespace vorlix {
namespace {

std::string bytesText(uint64_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

uint64_t endOf(const ImageRange& range) {
  return range.offset + range.length;
}

}  // namespace

RawSource::RawSource(SourceParts parts, std::optional<BlockMap> map)
    : SteppedSource(std::move(parts)), map_(std::move(map)) {
  if (map_ && map_->hash) hash_.emplace(*map_->hash);
}

ImagePiece RawSource::step(std::span<uint8_t> buffer, uint64_t most) {
  return map_ ? stepThroughMap(buffer, most) : stepThroughFile(buffer, most);
}

ImagePiece RawSource::cutOff() const {
  return failed("it ends after " + bytesText(position()) + ", but tells of " + bytesText(facts_.size.value_or(0)));
}

ImagePiece RawSource::stepThroughFile(std::span<uint8_t> buffer, uint64_t most) {
  uint64_t count = std::min<uint64_t>(buffer.size(), most);
  if (!content().isSequential()) {
    const uint64_t size = facts_.size.value_or(0);
    if (position() >= size) return piece(ImagePiece::Kind::end);
    if (asksForRuns_ && position() >= run_.offset + run_.size) {
      const auto run = content().file().dataFrom(position());
      asksForRuns_ = run && run->offset >= position() && run->offset <= size && run->size <= size - run->offset;
      if (asksForRuns_) run_ = *run;
    }
    if (asksForRuns_ && position() < run_.offset) {
      return piece(ImagePiece::Kind::zeros, std::min(most, run_.offset - position()));
    }
    const uint64_t end = asksForRuns_ && run_.size != 0 ? run_.offset + run_.size : size;
    count = std::min(count, end - position());
  }
  buffer = buffer.first(count);
  if (!content().isSequential() && !content().moveTo(position())) return failed(content().reason());
  const auto read = content().read(buffer);
  if (!read) return failed(content().reason());
  if (*read == 0) return facts_.size && position() != *facts_.size ? cutOff() : piece(ImagePiece::Kind::end);
  if (facts_.size && *read > *facts_.size - position()) {
    return failed("it goes on behind the " + bytesText(*facts_.size) + " that it tells of");
  }
  // A plain file's zeros are holes, or somebody wanted them there; unpacked ones cost nothing to notice.
  const bool hasZeros = content().isSequential() && areZeros(buffer.first(*read));
  return piece(hasZeros ? ImagePiece::Kind::zeros : ImagePiece::Kind::data, *read);
}

ImagePiece RawSource::stepThroughMap(std::span<uint8_t> buffer, uint64_t most) {
  const auto& ranges = map_->ranges;
  while (range_ < ranges.size() && position() >= endOf(ranges[range_])) ++range_;
  const uint64_t used = range_ < ranges.size() ? ranges[range_].offset : map_->imageSize;
  if (position() < used) return piece(ImagePiece::Kind::unused, std::min(most, used - position()));
  if (range_ == ranges.size()) return endOfMap();
  const uint64_t count = std::min({uint64_t{buffer.size()}, most, endOf(ranges[range_]) - position()});
  return stepInRange(buffer.first(count));
}

ImagePiece RawSource::stepInRange(std::span<uint8_t> buffer) {
  const ImageRange& range = map_->ranges[range_];
  if (!content().moveTo(position())) return failed(content().reason());
  const auto read = content().read(buffer);
  if (!read) return failed(content().reason());
  if (*read < buffer.size()) {
    return failed("it ends after " + bytesText(content().position()) + ", but its block map " + facts_.blockMap +
                  " tells of " + bytesText(map_->imageSize));
  }
  const std::span<const uint8_t> expected = map_->hashOf(range_);
  if (!expected.empty()) {
    if (position() == range.offset) hash_->restart();
    hash_->add(buffer);
    if (position() + buffer.size() == endOf(range)) {
      const auto hash = hash_->finish();
      if (!std::equal(hash.begin(), hash.end(), expected.begin(), expected.end())) {
        return failed("the bytes from " + std::to_string(range.offset) + " to " + std::to_string(endOf(range) - 1) +
                      " are not those that its block map " + facts_.blockMap + " was made of");
      }
    }
  }
  return piece(ImagePiece::Kind::data, buffer.size());
}

// The map's image has to end where the source does, which also completes the checks of packed formats.
ImagePiece RawSource::endOfMap() {
  uint8_t behind = 0;
  if (!content().moveTo(map_->imageSize)) return failed(content().reason());
  const uint64_t end = content().position();
  const auto read = content().read({&behind, 1});
  if (!read) return failed(content().reason());
  if (*read == 0 && end == map_->imageSize) return piece(ImagePiece::Kind::end);
  return failed(std::string("it is ") + (*read == 0 ? "smaller" : "larger") + " than its block map " + facts_.blockMap +
                " tells");
}

void RawSource::jumpTowards(uint64_t offset) {
  if (!map_) {
    if (content().isSequential()) return;
    const uint64_t place = std::min(offset, facts_.size.value_or(0));
    if (content().moveTo(place)) setPosition(place);
    return;
  }
  // To the start of the range, because its hash is of the whole.
  const auto& ranges = map_->ranges;
  const auto found =
      std::find_if(ranges.begin(), ranges.end(), [&](const auto& range) { return offset < endOf(range); });
  uint64_t place = std::min(offset, map_->imageSize);
  if (found != ranges.end() && found->offset < place) place = found->offset;
  setPosition(std::max(position(), place));
}

}  // namespace vorlix
