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

/// The images of the list that the header refers to, which is UTF-16 in XML; none where it cannot be read, is packed or
/// is larger than 1 MiB.
std::vector<WimFacts::Image> readWimImages(std::span<const uint8_t> start, SourceFile& file, uint32_t count);

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
