// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: blocks of bytes as zstd frames (RFC 8878), and SHA-256 at the speed of a disk. For what goes through
/// gigabytes; the SHA-256 of short things is in foundation/Sha256.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace vorlix {

/// A running SHA-256. One thread at a time uses an object.
class BlockHash {
 public:
  virtual ~BlockHash() = default;

  /// Appends bytes to what is hashed.
  virtual void add(std::span<const uint8_t> bytes) = 0;

  /// The digest of all that was added, as 64 hexadecimal digits in lower case. The object then begins anew.
  virtual std::string finish() = 0;
};

/// Packs and unpacks blocks. One thread at a time uses an object; each has about 3 MiB of memory.
class BlockCoder {
 public:
  virtual ~BlockCoder() = default;

  /// The room that a frame of `count` bytes needs at most.
  virtual size_t largestFrame(size_t count) const = 0;

  /// Packs a block into one frame, which has the block's size in its header and a checksum at its end.
  /// @return the bytes of the frame; absent if it does not fit.
  virtual std::optional<size_t> pack(std::span<const uint8_t> block, std::span<uint8_t> frame) = 0;

  /// Unpacks exactly one frame. @return whether it is whole, its checksum is right, and it fills the block exactly.
  virtual bool unpack(std::span<const uint8_t> frame, std::span<uint8_t> block) = 0;
};

/// Port: packing and hashing of blocks.
class BlockCoding {
 public:
  virtual ~BlockCoding() = default;

  /// Null with a `reason` for people where the system lacks what is needed. Any thread may ask.
  virtual std::unique_ptr<BlockCoder> newCoder(std::string& reason) = 0;
  /// Returns a hash of no bytes yet; null with the reason if there is none on this system.
  virtual std::unique_ptr<BlockHash> newHash(std::string& reason) = 0;
};

}  // namespace vorlix
