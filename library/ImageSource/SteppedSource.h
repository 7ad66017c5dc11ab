// SPDX-License-Identifier: Apache-2.0
//
// What all sources have in common: an end and a failure stay, sizes have a limit, and moving on is reading and
// dropping.
#pragma once

#include <Vorlix/ImageSource.h>

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Content.h"

namespace vorlix {

/// What a source is made of.
struct SourceParts {
  std::string name;  ///< for failures
  std::unique_ptr<Content> content;
  ImageFacts facts;
  uint64_t largestSize = 0;
};

class SteppedSource : public ImageSource {
 public:
  ImagePiece next(std::span<uint8_t> buffer) final;
  std::optional<ImageFailure> moveTo(uint64_t offset) final;
  uint64_t bytesRead() const final;

 protected:
  explicit SteppedSource(SourceParts parts);

  /// The next piece, which begins at position() and has at most `most` bytes.
  virtual ImagePiece step(std::span<uint8_t> buffer, uint64_t most) = 0;

  /// Goes on towards `offset` without reading, as far as that is possible.
  virtual void jumpTowards(uint64_t offset) { static_cast<void>(offset); }

  uint64_t position() const { return position_; }
  void setPosition(uint64_t position) { position_ = position; }
  Content& content() { return *content_; }

  ImagePiece piece(ImagePiece::Kind kind, uint64_t length = 0) const { return {kind, position_, length, {}}; }
  ImagePiece failed(std::string reason) const;

 private:
  ImagePiece checkedStep(std::span<uint8_t> buffer, uint64_t most);

  std::string name_;
  std::unique_ptr<Content> content_;
  uint64_t largestSize_;
  uint64_t position_ = 0;
  std::optional<ImagePiece> last_;
};

}  // namespace vorlix
