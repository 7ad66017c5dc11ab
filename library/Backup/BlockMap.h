// SPDX-License-Identifier: Apache-2.0
//
// Block maps in the form that bmap-tools document, version 2.0: which blocks of an image are in use, with their
// SHA-256.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "BackupFiles.h"

namespace vorlix {

/// Writes a map as its ranges come, in ascending order.
class BlockMapWriter {
 public:
  BlockMapWriter(const std::string& path, uint64_t imageSize, uint64_t mappedBlocks);

  void add(uint64_t firstBlock, uint64_t lastBlock, const std::string& sha256);

  /// Writes the end and the checksum of the file itself, and syncs.
  void finish();

  uint64_t size() const { return file_.size(); }

 private:
  void flush();

  NewFile file_;
  std::string pending_;
  uint64_t checksumOffset_ = 0;
};

struct MappedRange {
  uint64_t firstBlock = 0;
  uint64_t lastBlock = 0;
  std::string sha256;
};

/// Reads a map of that form as this system writes it, one range after the other. Throws BackupError for another one.
class BlockMapReader {
 public:
  explicit BlockMapReader(const std::string& path);

  uint64_t imageSize() const { return imageSize_; }
  uint64_t mappedBlocks() const { return mappedBlocks_; }

  /// Whether the checksum in the file is that of the file.
  bool hasRightChecksum();

  /// The next range; absent at the end. Ranges ascend and lie inside the image.
  std::optional<MappedRange> next();

 private:
  std::optional<std::string> line();
  uint64_t number(const char* element);
  [[noreturn]] void fail(const std::string& reason) const;

  std::string path_;
  OpenedFile file_;
  std::string buffer_;
  size_t at_ = 0;
  uint64_t offset_ = 0;  // of the file, behind the buffer
  uint64_t lineOffset_ = 0;
  uint64_t imageSize_ = 0;
  uint64_t mappedBlocks_ = 0;
  uint64_t nextBlock_ = 0;
  std::string checksum_;
  uint64_t checksumOffset_ = 0;
};

}  // namespace vorlix
