// SPDX-License-Identifier: Apache-2.0
//
// Frames of a volume on their way from one file to the other, several at a time.
#pragma once

#include <Vorlix/Allocation.h>
#include <Vorlix/platform/BlockCoding.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vorlix {

/// One frame and what is known of it. The buffers are used again for another one.
struct FrameSlot {
  uint64_t index = 0;
  std::vector<uint8_t> block;       ///< bytes of the volume: kFrameSize of them
  size_t blockSize = 0;             ///< how many there are
  std::vector<uint8_t> frame;       ///< room for the packed bytes
  size_t frameSize = 0;             ///< how many there are
  std::vector<ByteRange> ranges;    ///< in use, from the start of the block
  std::vector<std::string> hashes;  ///< of the ranges
  bool isDone = false;              ///< there is nothing to work on
  std::string finding;              ///< what is wrong
};

/// Takes frames 0 to `count` - 1 through three steps. `read` runs on the calling thread, `work` on several ones, and
/// `finish` on one; `read` and `finish` get the frames in their order. A step that throws stops all; run() throws that
/// exception again when all threads have ended.
class FramePipeline {
 public:
  using Step = std::function<void(FrameSlot&)>;
  using Work = std::function<void(FrameSlot&, BlockCoder&, BlockHash&)>;

  static void run(uint64_t count, const Step& read, const Work& work, const Step& finish);
};

}  // namespace vorlix
