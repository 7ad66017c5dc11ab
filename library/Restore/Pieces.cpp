// SPDX-License-Identifier: Apache-2.0
#include "Pieces.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <utility>

namespace vorlix {
namespace {

bool isLastOne(const ImagePiece& piece) {
  return piece.kind == ImagePiece::Kind::end || piece.kind == ImagePiece::Kind::failure;
}

}  // namespace

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

PieceReader::PieceReader(ImageSource& source, std::vector<ImageRange> blank, bool withHashes)
    : source_(source), blank_(std::move(blank)), withHashes_(withHashes), free_(kReadAhead) {
  reading_ = std::thread([this] { read(); });
  try {
    hashing_ = std::thread([this] { hash(); });
  } catch (...) {
    stop();
    throw;
  }
}

PieceReader::~PieceReader() {
  stop();
}

void PieceReader::stop() {
  {
    const std::lock_guard lock(mutex_);
    isStopped_ = true;
  }
  changed_.notify_all();
  reading_.join();
  if (hashing_.joinable()) hashing_.join();
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

void PieceReader::read() {
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
    isLast = isLastOne(read.piece);
    {
      const std::lock_guard lock(mutex_);
      read_.push_back(std::move(read));
    }
    changed_.notify_all();
  }
}

void PieceReader::hash() {
  PieceHash hash;
  for (bool isLast = false; !isLast;) {
    HashedPiece read;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return isStopped_ || !read_.empty(); });
      if (isStopped_) return;
      read = std::move(read_.front());
      read_.pop_front();
    }
    if (read.piece.kind == ImagePiece::Kind::data) {
      const std::span<uint8_t> bytes(read.bytes.data(), static_cast<size_t>(read.piece.length));
      blankOut(bytes, read.piece.offset, blank_);
      if (withHashes_) read.hash = hash.of(bytes);
    }
    isLast = isLastOne(read.piece);
    {
      const std::lock_guard lock(mutex_);
      ready_.push_back(std::move(read));
    }
    changed_.notify_all();
  }
}

}  // namespace vorlix
