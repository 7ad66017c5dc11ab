// SPDX-License-Identifier: Apache-2.0
//
// The bytes of a source, unpacked where they are packed.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "SourceFile.h"

namespace vorlix {

class Content {
 public:
  explicit Content(std::shared_ptr<SourceFile> file) : file_(std::move(file)) {}
  Content(std::shared_ptr<SourceFile> file, std::unique_ptr<UnpackedBytes> unpacked)
      : file_(std::move(file)), unpacked_(std::move(unpacked)) {}

  /// Reads the first bytes. @return false on failure.
  bool begin();

  /// The first 64 KiB, fewer where the content ends; begin() has read them. They are read again by read().
  std::span<const uint8_t> start() const { return unpacked_ ? std::span<const uint8_t>(start_) : file_->start(); }

  /// Fills the buffer as far as the content reaches. @return how many bytes; absent on failure.
  std::optional<size_t> read(std::span<uint8_t> buffer);

  /// Has the next read() begin at `offset`, not before position(). Where that is behind the end of packed content, the
  /// position is the end. @return false on failure.
  bool moveTo(uint64_t offset);

  uint64_t position() const { return position_; }

  /// Why reading failed.
  const std::string& reason() const { return reason_; }

  /// Bytes of the content, where that is known.
  std::optional<uint64_t> size() const { return unpacked_ ? unpacked_->size() : file_->size(); }

  /// Not a file in its plain form: what lies between two places can only be read.
  bool isSequential() const { return unpacked_ != nullptr || !file_->size(); }

  const SourceFile& file() const { return *file_; }

 private:
  ssize_t readNext(uint8_t* buffer, size_t count);

  std::shared_ptr<SourceFile> file_;
  std::unique_ptr<UnpackedBytes> unpacked_;
  std::vector<uint8_t> start_;  // of unpacked content
  uint64_t position_ = 0;
  std::string reason_;
};

}  // namespace vorlix
