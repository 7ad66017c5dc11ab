// SPDX-License-Identifier: Apache-2.0
//
// Reads a source ahead of the writing, on a thread of its own.
#pragma once

#include <Vorlix/ImageSource.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
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

/// The pieces of a source, read and hashed ahead. At most kReadAhead of them are in memory.
class PieceReader {
 public:
  /// @param blank  so many bytes at the start of the volume are taken as zeros
  PieceReader(ImageSource& source, size_t blank);
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
  size_t blank_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<HashedPiece> ready_;
  std::vector<std::vector<uint8_t>> free_;
  bool isStopped_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace vorlix
