// SPDX-License-Identifier: Apache-2.0
#include "FatTable.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <Vorlix/foundation/LittleEndian.h>
#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr size_t kMostPages = 65536;  // 256 MiB

size_t entrySize(FatWidth width) {
  return width == FatWidth::bits32 ? 4 : 2;
}

// Entries of 12 bits can begin inside a byte; two bytes contain every such entry.
uint64_t entryOffset(uint64_t cluster, FatWidth width) {
  return width == FatWidth::bits12 ? cluster + cluster / 2 : cluster * entrySize(width);
}

}  // namespace

Refusal FatTable::read(const FatSource& source, const FatLayout& layout, Copies copies) {
  width_ = layout.width;
  clusters_ = layout.clusters;
  const uint64_t last = uint64_t{kFirstCluster} + clusters_ - 1;
  const uint64_t length = entryOffset(last, width_) + entrySize(width_);
  pages_.resize(static_cast<size_t>((length + kPage - 1) / kPage));
  const uint32_t count = copies == Copies::first ? 1 : layout.tableCount;
  std::vector<uint8_t> piece(kFatPiece);
  std::vector<uint8_t> other(kFatPiece);
  for (uint64_t at = 0; at < length;) {
    uint64_t data = length;
    for (uint32_t copy = 0; copy < count; ++copy) {
      const uint64_t start = layout.tables + copy * layout.tableSize;
      data = std::min(data, source.nextData(start + at) - start);
    }
    at = std::max(at, data / kPage * kPage);
    if (data >= length) break;
    const auto size = static_cast<size_t>(std::min<uint64_t>(kFatPiece, length - at));
    if (!source.read(piece.data(), size, layout.tables + at))
      return dissenterFor(errno, "reading its allocation table");
    for (uint32_t copy = 1; copy < count; ++copy) {
      if (!source.read(other.data(), size, layout.tables + copy * layout.tableSize + at)) {
        return dissenterFor(errno, "reading its allocation table");
      }
      if (std::memcmp(piece.data(), other.data(), size) == 0) continue;
      return Dissenter{kDissentUnsupported, "the FAT file system is damaged: its allocation tables differ"};
    }
    keep(at, piece.data(), size);
    if (kept_ > kMostPages) {
      return Dissenter{kDissentUnsupported, "the FAT file system has more files than can be mirrored"};
    }
    at += size;
  }
  return std::nullopt;
}

void FatTable::keep(uint64_t at, const uint8_t* bytes, size_t count) {
  for (size_t done = 0; done < count; done += kPage) {
    const size_t size = std::min(kPage, count - done);
    if (areZeros({bytes + done, size})) continue;
    auto page = std::make_unique<Page>();
    std::copy_n(bytes + done, size, page->begin());
    pages_[static_cast<size_t>((at + done) / kPage)] = std::move(page);
    ++kept_;
  }
}

uint8_t FatTable::byteAt(uint64_t offset) const {
  const auto& page = pages_[static_cast<size_t>(offset / kPage)];
  return page ? (*page)[offset % kPage] : uint8_t{0};
}

uint32_t FatTable::value(uint64_t offset, size_t count) const {
  std::array<uint8_t, 4> bytes = {};
  for (size_t i = 0; i < count; ++i) bytes[i] = byteAt(offset + i);
  return littleEndian32(bytes.data());
}

uint32_t FatTable::next(uint32_t cluster) const {
  const uint32_t entry = value(entryOffset(cluster, width_), entrySize(width_));
  if (width_ == FatWidth::bits12) return cluster % 2 == 0 ? entry & 0xFFFU : entry >> 4;
  return width_ == FatWidth::bits32 ? entry & 0x0FFFFFFFU : entry;
}

bool FatTable::isEnd(uint32_t value) const {
  if (width_ == FatWidth::bits12) return value >= 0xFF8;
  return width_ == FatWidth::bits16 ? value >= 0xFFF8 : value >= 0x0FFFFFF8;
}

uint32_t FatTable::endMark() const {
  return width_ == FatWidth::bits12 ? 0xFFF : width_ == FatWidth::bits16 ? 0xFFFF : 0x0FFFFFFF;
}

FatTable::Location FatTable::locationOf(uint32_t cluster) const {
  return {entryOffset(cluster, width_), entrySize(width_)};
}

std::array<uint8_t, 4> FatTable::bytesWith(uint32_t cluster, uint32_t next, const std::array<uint8_t, 4>& now) const {
  const uint32_t old = littleEndian32(now.data());
  uint32_t value = next;
  if (width_ == FatWidth::bits12) value = cluster % 2 == 0 ? (old & 0xF000U) | next : (old & 0x000FU) | next << 4;
  if (width_ == FatWidth::bits32) value = (old & 0xF0000000U) | next;
  std::array<uint8_t, 4> bytes = {};
  putLittleEndian(bytes.data(), bytes.size(), value);
  return bytes;
}

uint32_t FatTable::freeClusters() const {
  const uint32_t end = kFirstCluster + clusters_;
  uint32_t used = 0;
  for (uint32_t cluster = kFirstCluster; cluster < end;) {
    // Skips pages that are all zero, except with 12-bit entries, which may span two pages and are few.
    const uint64_t offset = entryOffset(cluster, width_);
    if (width_ != FatWidth::bits12 && !pages_[static_cast<size_t>(offset / kPage)]) {
      const auto nextPage = static_cast<uint32_t>((offset / kPage + 1) * kPage / entrySize(width_));
      cluster = std::min(end, nextPage);
      continue;
    }
    if (next(cluster) != 0) ++used;
    ++cluster;
  }
  return clusters_ - used;
}

void FatTable::addTo(FatDigest& digest) const {
  for (size_t number = 0; number < pages_.size(); ++number) {
    if (!pages_[number]) continue;
    digest.addWord(number);
    digest.add(pages_[number]->data(), pages_[number]->size());
  }
}

}  // namespace vorlix
