// SPDX-License-Identifier: Apache-2.0
#include "PartitionExtents.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <sys/stat.h>
#include <unistd.h>
#include "foundation/GUIDPartitionTable.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

// UEFI Specification 2.10, tables 5.1, 5.5 and 5.6.
constexpr size_t kMBRSlots = 446;
constexpr size_t kMBRSignature = 510;
constexpr size_t kHeaderSize = 92;
constexpr size_t kHeaderEntryLBA = 72;
constexpr size_t kHeaderEntryCount = 80;
constexpr size_t kEntrySize = 128;

template <size_t size>
bool readWhole(int descriptor, std::array<uint8_t, size>& bytes, uint64_t offset) {
  if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) return false;
  return pread(descriptor, bytes.data(), size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

std::optional<Extent> extentOf(uint64_t first, uint64_t count, uint32_t blockSize, uint64_t diskSize) {
  const uint64_t blocks = diskSize / blockSize;
  if (first == 0 || count == 0 || first >= blocks) return std::nullopt;
  return Extent{first * blockSize, std::min(count, blocks - first) * blockSize};
}

// Returns a block, or the part of it that the disk has.
std::vector<uint8_t> readBlock(int descriptor, uint64_t lba, uint32_t blockSize) {
  constexpr auto kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
  if (lba > kLargestOffset / blockSize) return {};
  std::vector<uint8_t> block(blockSize);
  const ssize_t count = pread(descriptor, block.data(), block.size(), static_cast<off_t>(lba * blockSize));
  block.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return block;
}

bool hasSecondHeader(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  const uint64_t blocks = diskSize / blockSize;
  if (blocks < 3) return false;
  return isSoundGPTHeader(readBlock(descriptor, blocks - 1, blockSize), blocks - 1) &&
         leavesDiskToGPT(readBlock(descriptor, 0, 512));
}

struct HeaderBlock {
  uint64_t lba = 0;
  std::vector<uint8_t> bytes;
};

// Returns the header that counts: the first one, or where that is gone, an undamaged second one.
std::optional<HeaderBlock> headerBlock(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  std::vector<uint8_t> first = readBlock(descriptor, 1, blockSize);
  if (hasGPTSignature(first)) return HeaderBlock{1, std::move(first)};
  if (!hasSecondHeader(descriptor, diskSize, blockSize)) return std::nullopt;
  const uint64_t last = diskSize / blockSize - 1;
  return HeaderBlock{last, readBlock(descriptor, last, blockSize)};
}

std::optional<Extent> gptExtent(int descriptor, std::span<const uint8_t> header, uint64_t diskSize, uint32_t blockSize,
                                uint32_t number) {
  if (header.size() < kHeaderSize) return std::nullopt;
  const uint64_t entryLBA = littleEndian(header, kHeaderEntryLBA, 8);
  const uint64_t count = littleEndian(header, kHeaderEntryCount, 4);
  if (number > count || entryLBA >= diskSize / blockSize) return std::nullopt;
  std::array<uint8_t, kEntrySize> entry;
  if (!readWhole(descriptor, entry, entryLBA * blockSize + (uint64_t{number} - 1) * kEntrySize)) return std::nullopt;
  if (std::all_of(entry.begin(), entry.begin() + 16, [](uint8_t byte) { return byte == 0; })) return std::nullopt;
  const uint64_t first = littleEndian(entry, 32, 8);
  const uint64_t last = littleEndian(entry, 40, 8);
  if (last < first) return std::nullopt;
  const uint64_t blocks = std::min(last - first, std::numeric_limits<uint64_t>::max() - 1) + 1;
  return extentOf(first, blocks, blockSize, diskSize);
}

std::optional<Extent> mbrExtent(int descriptor, uint64_t diskSize, uint32_t blockSize, uint32_t number) {
  std::array<uint8_t, 512> sector;
  if (number > 4 || !readWhole(descriptor, sector, 0)) return std::nullopt;
  if (littleEndian(sector, kMBRSignature, 2) != 0xAA55) return std::nullopt;
  const size_t slot = kMBRSlots + size_t{number - 1} * 16;
  if (sector[slot + 4] == 0) return std::nullopt;
  return extentOf(littleEndian(sector, slot + 8, 4), littleEndian(sector, slot + 12, 4), blockSize, diskSize);
}

}  // namespace

uint32_t imageBlockSize(int descriptor) {
  constexpr uint32_t kSizes[] = {512, 4096};
  for (const uint32_t size : kSizes) {
    if (hasGPTSignature(readBlock(descriptor, 1, size))) return size;
  }
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) return kSizes[0];
  for (const uint32_t size : kSizes) {
    if (hasSecondHeader(descriptor, static_cast<uint64_t>(status.st_size), size)) return size;
  }
  return kSizes[0];
}

std::optional<uint64_t> gptHeaderLBA(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  const std::optional<HeaderBlock> header = headerBlock(descriptor, diskSize, blockSize);
  return header ? std::optional(header->lba) : std::nullopt;
}

std::optional<Extent> partitionExtent(int descriptor, uint64_t diskSize, uint32_t blockSize, uint32_t number) {
  if (number == 0 || blockSize == 0) return std::nullopt;
  if (const auto header = headerBlock(descriptor, diskSize, blockSize)) {
    return gptExtent(descriptor, header->bytes, diskSize, blockSize, number);
  }
  return mbrExtent(descriptor, diskSize, blockSize, number);
}

}  // namespace vorlix
