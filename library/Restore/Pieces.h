// SPDX-License-Identifier: Apache-2.0
//
// Reads a source ahead of the writing, and hashes it, each on a thread of its own.
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
  std::string hash;            ///< of data: SHA-256, if it was asked for
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
  /// @param withHashes  whether the data is hashed, which takes most of the processor's time
  /// Throws std::system_error if there can be no thread.
  PieceReader(ImageSource& source, std::vector<ImageRange> blank, bool withHashes);
  ~PieceReader();
  PieceReader(const PieceReader&) = delete;
  PieceReader& operator=(const PieceReader&) = delete;

  /// Waits for the next piece.
  HashedPiece next();

  /// Takes the memory of a piece that is done.
  void recycle(std::vector<uint8_t> bytes);

 private:
  static constexpr size_t kReadAhead = 6;

  void read();
  void hash();
  void stop();

  ImageSource& source_;
  std::vector<ImageRange> blank_;
  bool withHashes_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<HashedPiece> read_;   // not hashed yet
  std::deque<HashedPiece> ready_;  // hashed
  std::vector<std::vector<uint8_t>> free_;
  bool isStopped_ = false;
  std::thread reading_;
  std::thread hashing_;
};

}  // namespace vorlix
