// SPDX-License-Identifier: Apache-2.0
//
// Writes block maps in the form that bmap-tools document, version 2.0: which blocks of an image are in use, with their
// SHA-256. library/ImageSource reads them.
#pragma once

#include <cstdint>
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

}  // namespace vorlix
