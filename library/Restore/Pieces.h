// SPDX-License-Identifier: Apache-2.0
//
// Reads a source ahead of the writing, on a thread of its own.
#pragma once

#include <Vorlix/ImageSource.h>
#include <Vorlix/platform/BlockCoding.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace vorlix {

/// A piece of a source with its bytes and their hash.
struct HashedPiece {
  ImagePiece piece;
  std::vector<uint8_t> bytes;  ///< of data
  std::string hash;            ///< of data: SHA-256
};

/// Fills those parts of `bytes`, which are at `offset` of the volume, with zeros that are in the ranges.
void blankOut(std::span<uint8_t> bytes, uint64_t offset, const std::vector<ImageRange>& ranges);

/// SHA-256 of many bytes, 64 hexadecimal digits. One thread at a time uses an object.
class PieceHash {
 public:
  PieceHash();
  std::string of(std::span<const uint8_t> bytes);

 private:
  std::unique_ptr<BlockHash> fast_;  // null where the system has none
};

/// The pieces of a source, read and hashed ahead. At most kReadAhead of them are in memory.
class PieceReader {
 public:
  /// @param blank  these ranges of the volume are taken as zeros
  PieceReader(ImageSource& source, std::vector<ImageRange> blank);
  ~PieceReader();
  PieceReader(const PieceReader&) = delete;
  PieceReader& operator=(const PieceReader&) = delete;

  /// Waits for the next piece.
  HashedPiece next();

  /// Takes the memory of a piece that is done.
  void recycle(std::vector<uint8_t> bytes);

 private:
  static constexpr size_t kReadAhead = 4;

  void run();

  ImageSource& source_;
  std::vector<ImageRange> blank_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<HashedPiece> ready_;
  std::vector<std::vector<uint8_t>> free_;
  bool isStopped_ = false;
  PieceHash hash_;
  std::thread thread_;  // last: it uses the others
};

}  // namespace vorlix
