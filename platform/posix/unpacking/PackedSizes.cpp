// SPDX-License-Identifier: Apache-2.0
#include "PackedSizes.h"

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <array>
#include <limits>
#include <vector>

namespace vorlix {
namespace {

constexpr size_t kXzHeader = 12;  // and footer
constexpr uint64_t kLargestIndex = uint64_t{16} << 20;
constexpr int kMostStreams = 64;
constexpr int kMostBlocks = 65536;

// Adds numbers of a file, which may be any.
class CheckedSum {
 public:
  void add(uint64_t number) {
    if (number > std::numeric_limits<int64_t>::max() - sum_) {
      isTooLarge_ = true;
    } else {
      sum_ += number;
    }
  }
  bool isTooLarge() const { return isTooLarge_; }
  uint64_t value() const { return sum_; }

 private:
  uint64_t sum_ = 0;
  bool isTooLarge_ = false;
};

// The numbers of an index: seven bits a byte, the lowest first.
class IndexNumbers {
 public:
  explicit IndexNumbers(const std::vector<uint8_t>& index) : index_(index) {}

  std::optional<uint64_t> next() {
    uint64_t number = 0;
    for (unsigned shift = 0; shift < 63 && place_ < index_.size(); shift += 7) {
      const uint8_t byte = index_[place_++];
      number |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if ((byte & 0x80) == 0) return number;
    }
    return std::nullopt;
  }

 private:
  const std::vector<uint8_t>& index_;
  size_t place_ = 1;  // behind the index's mark
};

// Adds the unpacked size of the stream that ends at `end`. @return where it begins.
std::optional<uint64_t> addStream(const PackedFile& file, uint64_t end, CheckedSum& unpacked) {
  std::array<uint8_t, kXzHeader> footer = {};
  if (end < 2 * kXzHeader || !file.readAt(end - kXzHeader, footer.data(), footer.size())) return std::nullopt;
  if (footer[10] != 'Y' || footer[11] != 'Z') return std::nullopt;
  const uint64_t indexSize = (littleEndian(footer, 4, 4) + 1) * 4;
  if (indexSize > kLargestIndex || indexSize > end - 2 * kXzHeader) return std::nullopt;
  std::vector<uint8_t> index(indexSize);
  if (!file.readAt(end - kXzHeader - indexSize, index.data(), index.size()) || index[0] != 0) return std::nullopt;
  IndexNumbers numbers(index);
  CheckedSum packed;
  packed.add(2 * kXzHeader + indexSize);
  const auto count = numbers.next();
  if (!count) return std::nullopt;
  for (uint64_t i = 0; i < *count; ++i) {
    const auto blockSize = numbers.next();
    const auto size = numbers.next();
    if (!blockSize || !size) return std::nullopt;
    packed.add((*blockSize + 3) / 4 * 4);
    unpacked.add(*size);
  }
  if (packed.isTooLarge() || packed.value() > end) return std::nullopt;
  return end - packed.value();
}

struct Frame {
  uint64_t content = 0;  // bytes unpacked
  uint64_t end = 0;      // in the file
};

constexpr uint64_t kZstdMagic = 0xFD2FB528;
constexpr uint64_t kFirstSkippable = 0x184D2A50;  // of sixteen

std::optional<Frame> frameAt(const PackedFile& file, uint64_t offset, int& blocks) {
  constexpr size_t kShortest = 8;
  constexpr size_t kLongest = 18;
  const uint64_t left = *file.size() - offset;
  std::array<uint8_t, kLongest> header = {};
  if (left < kShortest || !file.readAt(offset, header.data(), std::min<uint64_t>(left, kLongest))) return std::nullopt;
  const uint64_t magic = littleEndian(header, 0, 4);
  if (magic - kFirstSkippable < 16) {
    return Frame{0, offset + 8 + littleEndian(header, 4, 4)};
  }
  if (magic != kZstdMagic) return std::nullopt;
  const uint8_t descriptor = header[4];
  const bool isOneSegment = (descriptor & 0x20) != 0;
  const bool hasChecksum = (descriptor & 0x04) != 0;
  constexpr size_t kDictionarySizes[] = {0, 1, 2, 4};
  const size_t place = 5 + (isOneSegment ? 0 : 1) + kDictionarySizes[descriptor & 0x03];
  const unsigned sizeFlag = descriptor >> 6;
  const size_t sizeSize = sizeFlag == 0 ? (isOneSegment ? 1 : 0) : size_t{1} << sizeFlag;
  if (sizeSize == 0) return std::nullopt;  // the frame does not tell
  const uint64_t content = littleEndian(header, place, sizeSize) + (sizeSize == 2 ? 256 : 0);
  uint64_t end = offset + place + sizeSize;
  for (bool isLast = false; !isLast;) {
    std::array<uint8_t, 3> block = {};
    if (++blocks > kMostBlocks || !file.readAt(end, block.data(), block.size())) return std::nullopt;
    const uint64_t number = littleEndian(block, 0, 3);
    isLast = (number & 1) != 0;
    const bool isRepeatedByte = (number >> 1 & 3) == 1;
    end += block.size() + (isRepeatedByte ? 1 : number >> 3);
  }
  return Frame{content, end + (hasChecksum ? 4 : 0)};
}

}  // namespace

bool PackedFile::readAt(uint64_t offset, void* buffer, size_t count) const {
  const auto end = size();
  if (!end || offset > *end || count > *end - offset || !seek(offset)) return false;
  size_t done = 0;
  while (done < count) {
    const ssize_t step = read(static_cast<char*>(buffer) + done, count - done);
    if (step <= 0) return false;
    done += static_cast<size_t>(step);
  }
  return true;
}

std::optional<uint64_t> xzSize(const PackedFile& file) {
  if (!file.size()) return std::nullopt;
  uint64_t end = *file.size();
  CheckedSum unpacked;
  for (int streams = 0; end > 0 && streams < kMostStreams; ++streams) {
    std::array<uint8_t, 4> padding = {};
    int words = 0;
    while (end >= padding.size() && file.readAt(end - padding.size(), padding.data(), padding.size()) &&
           littleEndian(padding, 0, 4) == 0 && ++words < kMostBlocks) {
      end -= padding.size();
    }
    const auto begin = addStream(file, end, unpacked);
    if (!begin) return std::nullopt;
    end = *begin;
  }
  if (end != 0 || unpacked.isTooLarge()) return std::nullopt;
  return unpacked.value();
}

std::optional<uint64_t> zstdSize(const PackedFile& file) {
  if (!file.size()) return std::nullopt;
  CheckedSum unpacked;
  int blocks = 0;
  for (uint64_t offset = 0; offset < *file.size(); ++blocks) {
    const auto frame = frameAt(file, offset, blocks);
    if (!frame || frame->end > *file.size() || frame->end < offset) return std::nullopt;
    unpacked.add(frame->content);
    offset = frame->end;
    if (blocks > kMostBlocks) return std::nullopt;
  }
  if (unpacked.isTooLarge()) return std::nullopt;
  return unpacked.value();
}

}  // namespace vorlix
