// SPDX-License-Identifier: Apache-2.0
//
// Block maps: which blocks of a raw image are in use, and their hashes. The format of bmap-tools, versions 1.3 (SHA-1),
// 1.4 and 2.0, which are the same (SHA-1, SHA-256 or SHA-512): an XML file with the image's size in bytes, the size and
// number of its blocks, the number of those in use, ranges of block numbers, and a hash of the file itself, computed
// with zeros in its own place.
#pragma once

#include <Vorlix/ImageSource.h>

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/RunningHash.h"

namespace vorlix {

struct BlockMap {
  uint64_t imageSize = 0;
  std::optional<HashKind> hash;
  std::vector<ImageRange> ranges;  ///< in bytes, rising, none beyond the image
  std::vector<bool> hasHash;       ///< for each range
  std::vector<uint8_t> hashes;     ///< of the ranges, one after the other; zeros for one without

  /// Every range has one.
  bool isVerified() const;
  std::span<const uint8_t> hashOf(size_t range) const;
};

/// Reads a block map in runs of bytes of any length. Memory depends on the ranges only, whose number is limited.
class BlockMapReader {
 public:
  BlockMapReader();

  /// @return false for a fault, see reason().
  bool add(std::span<const uint8_t> bytes);

  /// Checks the whole. @return false for a fault.
  bool finish();

  const std::string& reason() const { return reason_; }
  BlockMap takeMap() { return std::move(map_); }

 private:
  enum class Place { text, tag, comment, instruction };

  bool fail(std::string reason);
  bool addByte(uint8_t& byte);
  bool endTag();
  bool open(const std::string& name);
  bool close(const std::string& name);
  bool setNumber(const std::string& name, std::optional<uint64_t>& number);
  bool setVersion();
  bool addRange();
  bool isInFileHash() const;
  bool checkFileHash();
  bool checkNumbers();
  std::optional<std::string> attribute(const std::string& name) const;

  BlockMap map_;
  std::string reason_;
  Place place_ = Place::text;
  char quote_ = '\0';
  std::string tag_;
  std::string text_;
  std::string rangeTag_;
  std::vector<std::string> open_;  // names of the elements around
  bool isDone_ = false;            // the root has been closed
  int minor_ = -1;
  int major_ = -1;
  std::optional<uint64_t> imageSize_, blockSize_, blockCount_, usedCount_;
  std::optional<std::string> hashName_, fileHash_;
  uint64_t nextBlock_ = 0;  // behind the last range
  uint64_t inRanges_ = 0;   // blocks
  std::vector<std::pair<HashKind, std::unique_ptr<RunningHash>>> running_;
};

/// Reads the block map in a file, plain. Absent with a `failure`.
std::optional<BlockMap> readBlockMap(const std::string& path, ImageFailure& failure);

}  // namespace vorlix
