// SPDX-License-Identifier: Apache-2.0
//
// What is behind the functions of UnpackerTable.h.
#pragma once

#include <Vorlix/platform/Unpacking.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/posix/UnpackerTable.h"

namespace vorlix {

/// The calls that reach the packed file.
class PackedFile {
 public:
  explicit PackedFile(const PackedCalls& calls) : calls_(calls) {}

  /// @return how many bytes, 0 only at the end, or -1 with `errno` set.
  ssize_t read(void* buffer, size_t count) const { return calls_.read(calls_.packed, buffer, count); }

  /// Reads all of `count` bytes at `offset`, where the file can be sought in. @return whether they are there.
  bool readAt(uint64_t offset, void* buffer, size_t count) const;

  bool seek(uint64_t offset) const { return calls_.size >= 0 && calls_.seek(calls_.packed, offset); }

  /// Absent where it cannot be sought in.
  std::optional<uint64_t> size() const {
    return calls_.size < 0 ? std::nullopt : std::optional(static_cast<uint64_t>(calls_.size));
  }

 private:
  PackedCalls calls_;
};

/// Methods are those of UnpackedBytes.
class Unpacker {
 public:
  virtual ~Unpacker() = default;

  virtual ssize_t read(void* buffer, size_t count) = 0;
  const std::string& reason() const { return reason_; }
  std::optional<uint64_t> size() const { return size_; }

 protected:
  ssize_t fail(std::string reason) {
    reason_ = std::move(reason);
    return -1;
  }

  std::string reason_;
  std::optional<uint64_t> size_;
};

/// gzip (RFC 1952) with zlib: libarchive does not compare checksum and size.
std::unique_ptr<Unpacker> openGzip(const PackedFile& file, std::string& reason);

/// The others with libarchive, from where the file stands.
/// @param size  unpacked, if it is known. Of a zip file: from its directory, which then has one file only.
std::unique_ptr<Unpacker> openArchive(PackedFormat format, const PackedFile& file, std::optional<uint64_t> size,
                                      std::string& reason);

}  // namespace vorlix
