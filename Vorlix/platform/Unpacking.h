// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: unpacking one packed file, from the bytes of the file to the bytes that were packed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace vorlix {

/// How a file is packed. All but zip hold one run of bytes without a name.
enum class PackedFormat { gzip, xz, zstd, bzip2, zip };

/// The bytes of a packed file, in order. One thread at a time uses an object.
class PackedBytes {
 public:
  virtual ~PackedBytes() = default;

  /// Reads up to `count` bytes. @return how many, 0 only at the end, or -1 with `errno` set.
  virtual ssize_t read(void* buffer, size_t count) = 0;

  /// How many bytes there are. Absent where nobody knows before the end, as of a pipe; seek() then fails.
  virtual std::optional<uint64_t> size() const { return std::nullopt; }

  /// Has the next read() begin at `offset`, which is at most size(). @return whether it does.
  virtual bool seek(uint64_t offset) {
    static_cast<void>(offset);
    return false;
  }
};

/// The bytes that were packed, in order. One thread at a time uses an object.
class UnpackedBytes {
 public:
  virtual ~UnpackedBytes() = default;

  /// Reads up to `count` bytes. @return how many, 0 only at the end, or -1: see reason(). The end is only told where
  /// all that the format checks was right: checksums, sizes, and nothing foreign behind the packed data. What was read
  /// before a failure may be wrong already.
  virtual ssize_t read(void* buffer, size_t count) = 0;

  /// Why read() failed, for people: "truncated gzip input".
  virtual std::string reason() const = 0;

  /// How many bytes there will be, where the format says so before the first one. read() does not rely on it.
  virtual std::optional<uint64_t> size() const = 0;
};

/// Port: unpacks streams and looks into packed files.
class Unpacking {
 public:
  virtual ~Unpacking() = default;

  /// Unpacks a file from its first byte on. A zip file has to hold exactly one regular file; folders and the
  /// AppleDouble files under "__MACOSX/" do not count. Where the zip file cannot be sought in, a second one is only
  /// noticed behind the first, and then read() fails.
  ///
  /// Memory: the format's own window (at most 8 MiB as the tools pack by default, 64 MiB for `xz -9`, never above 128
  /// MiB) and less than 4 MiB.
  /// @param packed  at its start; kept until the result goes.
  /// @return null with a `reason` for people.
  virtual std::unique_ptr<UnpackedBytes> open(PackedFormat format, std::shared_ptr<PackedBytes> packed,
                                              std::string& reason) = 0;
};

/// Where nothing can be unpacked.
class NoUnpacking final : public Unpacking {
 public:
  std::unique_ptr<UnpackedBytes> open(PackedFormat, std::shared_ptr<PackedBytes>, std::string& reason) override {
    reason = "cannot unpack";
    return nullptr;
  }
};

}  // namespace vorlix
