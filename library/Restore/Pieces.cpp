// SPDX-License-Identifier: Apache-2.0
#include "Pieces.h"

#include <Vorlix/foundation/Sha256.h>

#include <algorithm>
#include <utility>

namespace vorlix {

PieceReader::PieceReader(ImageSource& source, size_t blank)
    : source_(source), blank_(blank), free_(kReadAhead), thread_([this] { run(); }) {}

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
      if (read.piece.offset < blank_) {
        std::fill_n(read.bytes.begin(), std::min(length, blank_ - static_cast<size_t>(read.piece.offset)), uint8_t{0});
      }
      read.hash = sha256({read.bytes.data(), length});
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
