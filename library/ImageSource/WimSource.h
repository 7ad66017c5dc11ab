// SPDX-License-Identifier: Apache-2.0
//
// The header of a WIM, and its list of images.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "SteppedSource.h"

namespace vorlix {

bool isWim(std::span<const uint8_t> start);

/// What the header says. Absent with a `reason` where it is damaged.
std::optional<WimFacts> parseWimHeader(std::span<const uint8_t> start, std::string& reason);

/// The bytes of the header, which no two WIMs share: an identifier is among them.
std::vector<uint8_t> wimKey(std::span<const uint8_t> start);

/// Adds what the list of images says that the header refers to, which is UTF-16 in XML. No images where it cannot be
/// read, is packed or is larger than 1 MiB.
void readWimList(std::span<const uint8_t> start, SourceFile& file, WimFacts& facts);

/// Has no bytes of a volume.
class WimSource final : public SteppedSource {
 public:
  explicit WimSource(SourceParts parts) : SteppedSource(std::move(parts)) {}

 private:
  ImagePiece step(std::span<uint8_t>, uint64_t) override {
    return failed("a WIM holds files; its images have to be applied to a volume");
  }
};

}  // namespace vorlix
