// SPDX-License-Identifier: Apache-2.0
#include "Pieces.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <utility>

namespace vorlix {

void blankOut(std::span<uint8_t> bytes, uint64_t offset, const std::vector<ImageRange>& ranges) {
  for (const ImageRange& range : ranges) {
    const uint64_t from = std::max(offset, range.offset);
    const uint64_t to = std::min(offset + bytes.size(), range.offset + range.length);
    if (from >= to) continue;
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(from - offset), to - from, uint8_t{0});
  }
}

PieceHash::PieceHash() {
  std::string reason;
  fast_ = platform().blockCoding->newHash(reason);
}

std::string PieceHash::of(std::span<const uint8_t> bytes) {
  if (!fast_) return sha256(bytes);
  fast_->add(bytes);
  return fast_->finish();
}

PieceReader::PieceReader(ImageSource& source, std::vector<ImageRange> blank)
    : source_(source), blank_(std::move(blank)), free_(kReadAhead), thread_([this] { run(); }) {}

PieceReader::~PieceReader() {
  {
    const std::lock_guard lock(mutex_);
    isStopped_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

HashedPiece PieceReader::next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !ready_.empty(); });
  HashedPiece piece = std::move(ready_.front());
  ready_.pop_front();
  return piece;
}

void PieceReader::recycle(std::vector<uint8_t> bytes) {
  {
    const std::lock_guard lock(mutex_);
    free_.push_back(std::move(bytes));
  }
  changed_.notify_all();
}

void PieceReader::run() {
  for (bool isLast = false; !isLast;) {
    HashedPiece read;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return isStopped_ || !free_.empty(); });
      if (isStopped_) return;
      read.bytes = std::move(free_.back());
      free_.pop_back();
    }
    read.bytes.resize(kLargestPiece);
    read.piece = source_.next(read.bytes);
    if (read.piece.kind == ImagePiece::Kind::data) {
      const auto length = static_cast<size_t>(read.piece.length);
      const std::span<uint8_t> bytes(read.bytes.data(), length);
      blankOut(bytes, read.piece.offset, blank_);
      read.hash = hash_.of(bytes);
    }
    isLast = read.piece.kind == ImagePiece::Kind::end || read.piece.kind == ImagePiece::Kind::failure;
    {
      const std::lock_guard lock(mutex_);
      ready_.push_back(std::move(read));
    }
    changed_.notify_all();
  }
}

}  // namespace vorlix
