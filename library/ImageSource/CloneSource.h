// SPDX-License-Identifier: Apache-2.0
//
// The special image of ntfsclone, versions 10.0 and 10.1. All numbers are little-endian.
//
//    0  "\0ntfsclone-image"          30  clusters of the volume, 8 bytes
//   16  major version, 1 byte        38  clusters in use, 8 bytes
//   17  minor version, 1 byte        46  where the commands begin, 4 bytes
//   18  bytes of a cluster, 4 bytes
//   22  bytes of the device, 8 bytes
//
// Commands follow, for clusters in rising order: byte 1 and the bytes of the next cluster; byte 0 and the 8 bytes of a
// number of clusters that are left out. The clusters of the volume are followed by one more, which is cut at the end of
// the device and ends with the second boot sector; images of version 10.0 may lack it.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "SteppedSource.h"

namespace vorlix {

struct CloneHeader {
  uint8_t minorVersion = 0;
  uint32_t clusterSize = 0;
  uint64_t clusters = 0;    ///< without the one behind the volume
  uint64_t inUse = 0;       ///< of them
  uint32_t dataOffset = 0;  ///< of the commands
  uint64_t size = 0;        ///< bytes of the volume, the second boot sector included
};

bool isCloneImage(std::span<const uint8_t> start);

/// Absent with a `reason` for other versions and numbers that cannot be.
std::optional<CloneHeader> parseCloneHeader(std::span<const uint8_t> start, std::string& reason);

/// The first bytes of the volume, at most `most`, as far as they stand in the first bytes of the image.
std::vector<uint8_t> startOfClone(const CloneHeader& header, std::span<const uint8_t> start, size_t most);

class CloneSource final : public SteppedSource {
 public:
  CloneSource(SourceParts parts, const CloneHeader& header);

 private:
  ImagePiece step(std::span<uint8_t> buffer, uint64_t most) override;

  bool readCommand();
  bool skipClusters();
  bool readInput(uint8_t* bytes, size_t count);
  bool fail(std::string reason);
  ImagePiece finish();
  uint64_t clusterEnd(uint64_t cluster) const;

  CloneHeader header_;
  bool hasBegun_ = false;
  std::vector<uint8_t> input_;
  size_t inputPlace_ = 0;
  size_t inputEnd_ = 0;
  uint64_t cluster_ = 0;  // the next one that a command is about
  uint64_t stored_ = 0;   // clusters that came
  uint64_t dataEnd_ = 0;  // of the cluster whose bytes come
  uint64_t gapEnd_ = 0;
  std::string fault_;
};

}  // namespace vorlix
