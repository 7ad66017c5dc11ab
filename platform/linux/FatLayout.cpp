// SPDX-License-Identifier: Apache-2.0
#include "FatLayout.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

constexpr size_t kEntrySize = 32;
constexpr uint8_t kEndOfFolder = 0x00;
constexpr uint8_t kDeleted = 0xE5;
constexpr uint8_t kVolumeLabel = 0x08;  // set in the parts of long names, too
constexpr uint8_t kFolder = 0x10;
constexpr uint32_t kFirstCluster = 2;
constexpr size_t kChunk = 1024 * 1024;

uint32_t littleEndian(const uint8_t* bytes, size_t count) {
  uint32_t value = 0;
  for (size_t i = count; i > 0; --i) value = value << 8 | bytes[i - 1];
  return value;
}

enum class Width { bits12, bits16, bits32 };

// Entries of 12 bits begin in the midst of a byte; two bytes hold any.
size_t tableEntrySize(Width width) {
  return width == Width::bits32 ? 4 : 2;
}

uint64_t tableEntryOffset(uint32_t cluster, Width width) {
  return width == Width::bits12 ? uint64_t{cluster} + cluster / 2 : uint64_t{cluster} * tableEntrySize(width);
}

uint32_t tableEntry(const uint8_t* bytes, uint32_t cluster, Width width) {
  const uint32_t value = littleEndian(bytes, tableEntrySize(width));
  if (width == Width::bits12) return cluster % 2 == 0 ? value & 0xFFFU : value >> 4;
  return width == Width::bits32 ? value & 0x0FFFFFFFU : value;
}

// Each word goes in by a step that can be undone, so that a change of one word always changes the sum.
class Digest {
 public:
  void add(const uint8_t* bytes, size_t count) {
    for (size_t at = 0; at < count; at += 8) {
      uint64_t word = 0;
      for (size_t i = 0; i < std::min<size_t>(8, count - at); ++i) word |= uint64_t{bytes[at + i]} << (8 * i);
      value_ = (value_ ^ word) * 0x9E3779B97F4A7C15U;
      value_ ^= value_ >> 32;
    }
  }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0x6A09E667F3BCC909U;
};

struct Layout {
  uint64_t clusterSize = 0;
  uint64_t tables = 0;       // offset of the first file allocation table
  uint64_t rootArea = 0;     // offset of the root folder where it has a place of its own
  uint64_t rootAreaEnd = 0;  // where it ends: the first cluster
  uint32_t rootCluster = 0;  // FAT32
  uint32_t clusters = 0;
  Width width = Width::bits12;

  bool hasCluster(uint32_t number) const { return number >= kFirstCluster && number - kFirstCluster < clusters; }
  uint64_t offsetOf(uint32_t cluster) const { return rootAreaEnd + (cluster - kFirstCluster) * clusterSize; }
};

class Reader {
 public:
  Reader(int descriptor, Extent window) : descriptor_(descriptor), window_(window) {}

  bool read(uint8_t* to, size_t count, uint64_t offset) const {
    if (offset > window_.size || count > window_.size - offset) {
      errno = EUCLEAN;
      return false;
    }
    size_t done = 0;
    while (done < count) {
      const ssize_t got =
          pread(descriptor_, to + done, count - done, static_cast<off_t>(window_.offset + offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got == 0) errno = EIO;
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }

  uint64_t size() const { return window_.size; }

 private:
  int descriptor_;
  Extent window_;
};

std::optional<Layout> layoutOf(const std::array<uint8_t, 512>& boot, uint64_t windowSize) {
  const auto field = [&](size_t offset, size_t count) { return littleEndian(boot.data() + offset, count); };
  const uint64_t sector = field(11, 2);
  const uint64_t sectorsPerCluster = field(13, 1);
  const uint64_t reserved = field(14, 2);
  const uint64_t tableCount = field(16, 1);
  const uint64_t rootEntries = field(17, 2);
  const uint64_t total = field(19, 2) != 0 ? field(19, 2) : field(32, 4);
  const bool isFAT32 = field(22, 2) == 0;
  const uint64_t tableSize = isFAT32 ? field(36, 4) : field(22, 2);
  const bool isPowerOfTwo = (sector & (sector - 1)) == 0 && (sectorsPerCluster & (sectorsPerCluster - 1)) == 0;
  if (sector < 512 || sector > 4096 || sectorsPerCluster == 0 || !isPowerOfTwo) return std::nullopt;
  if (reserved == 0 || tableCount == 0 || tableSize == 0 || total * sector > windowSize) return std::nullopt;

  Layout layout;
  const uint64_t rootSectors = (rootEntries * kEntrySize + sector - 1) / sector;
  const uint64_t firstData = reserved + tableCount * tableSize + rootSectors;
  if (firstData >= total) return std::nullopt;
  layout.clusterSize = sector * sectorsPerCluster;
  layout.tables = reserved * sector;
  layout.rootArea = (firstData - rootSectors) * sector;
  layout.rootAreaEnd = firstData * sector;
  layout.clusters = static_cast<uint32_t>((total - firstData) / sectorsPerCluster);
  if (isFAT32) {
    layout.width = Width::bits32;
    layout.rootCluster = field(44, 4);
  } else {
    layout.width = layout.clusters < 4085 ? Width::bits12 : Width::bits16;
  }
  const uint64_t bits = layout.width == Width::bits32 ? 32 : layout.width == Width::bits16 ? 16 : 12;
  if ((uint64_t{layout.clusters} + kFirstCluster) * bits > tableSize * sector * 8) return std::nullopt;
  return layout;
}

class Walk {
 public:
  Walk(const Reader& reader, const Layout& layout) : reader_(reader), layout_(layout), seen_(layout.clusters) {}

  bool run(FatOutline& outline) {
    outline_ = &outline;
    if (!addArea(0, layout_.rootAreaEnd)) return false;
    if (layout_.width == Width::bits32) {
      if (!layout_.hasCluster(layout_.rootCluster)) return damaged("its root folder has no place");
      pending_.push_back(layout_.rootCluster);
    } else if (!readRootArea()) {
      return false;
    }
    while (!pending_.empty()) {
      const uint32_t first = pending_.back();
      pending_.pop_back();
      if (!readFolder(first)) return false;
    }
    outline.digest = digest_.value();
    if (outline.totalSize <= uint64_t{layout_.clusters} * layout_.clusterSize) return true;
    return damaged("its files claim more than it holds");
  }

  const std::string& damage() const { return damage_; }

 private:
  bool damaged(const char* how) {
    damage_ = how;
    return false;
  }

  bool addArea(uint64_t from, uint64_t to) {
    std::vector<uint8_t> chunk(kChunk);
    for (uint64_t at = from; at < to;) {
      const auto count = static_cast<size_t>(std::min<uint64_t>(kChunk, to - at));
      if (!reader_.read(chunk.data(), count, at)) return false;
      digest_.add(chunk.data(), count);
      at += count;
    }
    return true;
  }

  bool readRootArea() {
    std::vector<uint8_t> bytes(static_cast<size_t>(layout_.rootAreaEnd - layout_.rootArea));
    if (!reader_.read(bytes.data(), bytes.size(), layout_.rootArea)) return false;
    static_cast<void>(takeEntries(bytes));
    return damage_.empty();
  }

  bool readFolder(uint32_t first) {
    std::vector<uint8_t> bytes(static_cast<size_t>(layout_.clusterSize));
    bool goesOn = true;
    for (uint32_t cluster = first; layout_.hasCluster(cluster);) {
      if (seen_[cluster - kFirstCluster]) return damaged("a folder in it is reached twice");
      seen_[cluster - kFirstCluster] = true;
      if (!reader_.read(bytes.data(), bytes.size(), layout_.offsetOf(cluster))) return false;
      digest_.add(bytes.data(), bytes.size());
      goesOn = goesOn && takeEntries(bytes);
      if (!damage_.empty() || !nextCluster(cluster, cluster)) return false;
    }
    return true;
  }

  // False at the entry that ends the folder.
  bool takeEntries(const std::vector<uint8_t>& bytes) {
    for (size_t at = 0; at + kEntrySize <= bytes.size(); at += kEntrySize) {
      const uint8_t* const entry = bytes.data() + at;
      if (entry[0] == kEndOfFolder) return false;
      if (entry[0] == kDeleted || entry[0] == '.' || (entry[11] & kVolumeLabel) != 0) continue;
      if ((entry[11] & kFolder) == 0) {
        ++outline_->files;
        outline_->totalSize += littleEndian(entry + 28, 4);
        continue;
      }
      ++outline_->folders;
      uint32_t first = littleEndian(entry + 26, 2);
      if (layout_.width == Width::bits32) first |= littleEndian(entry + 20, 2) << 16;
      if (!layout_.hasCluster(first)) return damaged("a folder in it has no place");
      pending_.push_back(first);
    }
    return true;
  }

  bool nextCluster(uint32_t cluster, uint32_t& next) {
    std::array<uint8_t, 4> entry = {};
    const uint64_t offset = layout_.tables + tableEntryOffset(cluster, layout_.width);
    if (!reader_.read(entry.data(), tableEntrySize(layout_.width), offset)) return false;
    next = tableEntry(entry.data(), cluster, layout_.width);
    return true;
  }

  const Reader& reader_;
  const Layout& layout_;
  std::vector<bool> seen_;
  std::vector<uint32_t> pending_;
  Digest digest_;
  FatOutline* outline_ = nullptr;
  std::string damage_;
};

Refusal readLayout(const Reader& reader, std::optional<Layout>& layout) {
  std::array<uint8_t, 512> boot = {};
  if (!reader.read(boot.data(), boot.size(), 0)) return dissenterFor(errno, "reading the boot sector");
  layout = layoutOf(boot, reader.size());
  if (layout) return std::nullopt;
  return Dissenter{kDissentUnsupported, "the FAT file system is damaged or larger than its partition"};
}

// Left out: hidden sectors and serial as they are patched (28 to 31, 72 to 79), the flags of a mounted volume, boot
// code.
bool readIdentity(const Reader& reader, uint64_t& identity) {
  constexpr std::pair<size_t, size_t> kLasting[] = {{11, 28}, {32, 37}, {38, 65}, {66, 72}};
  std::array<uint8_t, 512> boot;
  if (!reader.read(boot.data(), boot.size(), 0)) return false;
  Digest digest;
  for (const auto& [from, to] : kLasting) digest.add(boot.data() + from, to - from);
  identity = digest.value();
  return true;
}

}  // namespace

Refusal readFatSpace(int descriptor, Extent window, FatSpace& space) {
  const Reader reader(descriptor, window);
  std::optional<Layout> layout;
  if (Refusal refusal = readLayout(reader, layout)) return refusal;
  const uint32_t end = kFirstCluster + layout->clusters;
  std::vector<uint8_t> part;
  uint64_t unused = 0;
  for (uint32_t cluster = kFirstCluster; cluster < end;) {
    const uint32_t first = cluster;
    const uint32_t next = first + std::min<uint32_t>(kChunk / 4, end - first);
    const uint64_t start = tableEntryOffset(first, layout->width);
    part.resize(static_cast<size_t>(tableEntryOffset(next - 1, layout->width) - start) + tableEntrySize(layout->width));
    if (!reader.read(part.data(), part.size(), layout->tables + start)) {
      return dissenterFor(errno, "reading the file allocation table");
    }
    for (; cluster < next; ++cluster) {
      const uint8_t* const entry = part.data() + (tableEntryOffset(cluster, layout->width) - start);
      if (tableEntry(entry, cluster, layout->width) == 0) ++unused;
    }
  }
  space.total = uint64_t{layout->clusters} * layout->clusterSize;
  space.free = unused * layout->clusterSize;
  return std::nullopt;
}

Refusal readFatOutline(int descriptor, Extent window, FatOutline& outline) {
  const Reader reader(descriptor, window);
  std::optional<Layout> layout;
  if (Refusal refusal = readLayout(reader, layout)) return refusal;
  FatOutline found;
  if (!readIdentity(reader, found.identity)) return dissenterFor(errno, "reading the FAT file system");
  Walk walk(reader, *layout);
  if (!walk.run(found)) {
    if (walk.damage().empty()) return dissenterFor(errno, "reading the FAT file system");
    return Dissenter{kDissentUnsupported, "the FAT file system is damaged: " + walk.damage()};
  }
  outline = found;
  return std::nullopt;
}

}  // namespace vorlix
