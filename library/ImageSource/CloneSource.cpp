// SPDX-License-Identifier: Apache-2.0
#include "CloneSource.h"

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

namespace vorlix {
namespace {

constexpr std::string_view kCloneMagic("\0ntfsclone-image", 16);
constexpr size_t kCloneHeader = 50;
constexpr uint8_t kGap = 0;
constexpr uint8_t kCluster = 1;
constexpr size_t kCloneInput = size_t{256} << 10;

}  // namespace

bool isCloneImage(std::span<const uint8_t> start) {
  return start.size() >= kCloneMagic.size() && std::memcmp(start.data(), kCloneMagic.data(), kCloneMagic.size()) == 0;
}

std::optional<CloneHeader> parseCloneHeader(std::span<const uint8_t> start, std::string& reason) {
  constexpr uint8_t kMajor = 10;
  constexpr uint64_t kLargestCluster = uint64_t{2} << 20;  // of NTFS
  constexpr uint64_t kLargestOffset = 4096;
  if (start.size() < kCloneHeader) {
    reason = "truncated ntfsclone image";
    return std::nullopt;
  }
  const auto number = [&](size_t offset, size_t count) { return littleEndian(start.data() + offset, count); };
  CloneHeader header;
  header.minorVersion = start[17];
  if (start[16] != kMajor) {
    reason = "ntfsclone images of version " + std::to_string(start[16]) + "." + std::to_string(start[17]) +
             " are not read, only 10";
    return std::nullopt;
  }
  const uint64_t clusterSize = number(18, 4);
  const uint64_t deviceSize = number(22, 8);
  header.clusters = number(30, 8);
  header.inUse = number(38, 8);
  const uint64_t offset = number(46, 4);
  constexpr uint64_t kLargest = std::numeric_limits<int64_t>::max();
  const bool areSizes = std::has_single_bit(clusterSize) && clusterSize >= 512 && clusterSize <= kLargestCluster &&
                        header.clusters > 0 && header.clusters < kLargest / clusterSize;
  if (!areSizes || deviceSize < header.clusters * clusterSize || deviceSize > kLargest ||
      header.inUse > header.clusters + 1 || offset < kCloneHeader || offset > kLargestOffset) {
    reason = "damaged ntfsclone image: the numbers of its header cannot be";
    return std::nullopt;
  }
  header.clusterSize = static_cast<uint32_t>(clusterSize);
  header.dataOffset = static_cast<uint32_t>(offset);
  header.size = std::min(deviceSize, (header.clusters + 1) * clusterSize);
  return header;
}

std::vector<uint8_t> startOfClone(const CloneHeader& header, std::span<const uint8_t> start, size_t most) {
  std::vector<uint8_t> bytes;
  size_t place = header.dataOffset;
  while (place < start.size() && start[place] == kCluster && bytes.size() < most) {
    const auto cluster = start.subspan(place + 1, std::min<size_t>(header.clusterSize, start.size() - place - 1));
    const auto taken = cluster.first(std::min(cluster.size(), most - bytes.size()));
    bytes.insert(bytes.end(), taken.begin(), taken.end());
    place += 1 + cluster.size();
  }
  return bytes;
}

CloneSource::CloneSource(SourceParts parts, const CloneHeader& header)
    : SteppedSource(std::move(parts)), header_(header), input_(kCloneInput) {}

bool CloneSource::fail(std::string reason) {
  fault_ = std::move(reason);
  return false;
}

bool CloneSource::readInput(uint8_t* bytes, size_t count) {
  while (count > 0) {
    if (inputPlace_ == inputEnd_) {
      const auto read = content().read(input_);
      if (!read) return fail(content().reason());
      if (*read == 0) return fail("truncated ntfsclone image");
      inputPlace_ = 0;
      inputEnd_ = *read;
    }
    const size_t step = std::min(count, inputEnd_ - inputPlace_);
    std::memcpy(bytes, input_.data() + inputPlace_, step);
    inputPlace_ += step;
    bytes += step;
    count -= step;
  }
  return true;
}

bool CloneSource::skipClusters() {
  uint8_t bytes[8] = {};
  if (!readInput(bytes, sizeof bytes)) return false;
  const auto count = static_cast<int64_t>(littleEndian(bytes, sizeof bytes));
  if (count < 0) return fail("it is an ntfsclone image of metadata only, or damaged: it goes backwards");
  if (count == 0 || static_cast<uint64_t>(count) > header_.clusters - cluster_) {
    return fail("damaged ntfsclone image: it leaves out " + std::to_string(count) + " clusters of " +
                std::to_string(header_.clusters - cluster_));
  }
  cluster_ += static_cast<uint64_t>(count);
  gapEnd_ = cluster_ * header_.clusterSize;
  return true;
}

bool CloneSource::readCommand() {
  uint8_t command = 0;
  if (!readInput(&command, 1)) {
    const bool lacksSecondBootSector =
        header_.minorVersion == 0 && cluster_ == header_.clusters && content().reason().empty();
    if (!lacksSecondBootSector) return false;
    fault_.clear();
    ++cluster_;
    gapEnd_ = header_.size;
    return true;
  }
  if (command == kGap) return skipClusters();
  if (command != kCluster) return fail("damaged ntfsclone image: there is no command " + std::to_string(command));
  ++cluster_;
  ++stored_;
  dataEnd_ = std::min(cluster_ * header_.clusterSize, header_.size);
  return true;
}

ImagePiece CloneSource::step(std::span<uint8_t> buffer, uint64_t most) {
  if (!hasBegun_ && !content().moveTo(header_.dataOffset)) return failed(content().reason());
  hasBegun_ = true;
  const uint64_t room = std::min<uint64_t>(buffer.size(), most);
  uint64_t done = 0;
  while (done < room) {
    const uint64_t place = position() + done;
    if (place < dataEnd_) {
      const uint64_t count = std::min(room - done, dataEnd_ - place);
      if (!readInput(buffer.data() + done, count)) return failed(fault_);
      done += count;
    } else if (place < gapEnd_) {
      if (done > 0) break;
      return piece(ImagePiece::Kind::unused, std::min(most, gapEnd_ - place));
    } else if (cluster_ > header_.clusters) {
      if (done > 0) break;
      return finish();
    } else if (!readCommand()) {
      return failed(fault_);
    }
  }
  return piece(ImagePiece::Kind::data, done);
}

ImagePiece CloneSource::finish() {
  uint8_t behind = 0;
  if (readInput(&behind, 1)) return failed("damaged ntfsclone image: something follows its last cluster");
  if (!content().reason().empty()) return failed(fault_);
  if (stored_ < header_.inUse) {
    return failed("it is an ntfsclone image of metadata only, or damaged: it has " + std::to_string(stored_) + " of " +
                  std::to_string(header_.inUse) + " clusters in use");
  }
  return piece(ImagePiece::Kind::end);
}

}  // namespace vorlix
