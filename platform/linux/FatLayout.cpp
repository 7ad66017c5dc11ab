// SPDX-License-Identifier: Apache-2.0
#include "FatLayout.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <Vorlix/foundation/LittleEndian.h>
#include "FatDigest.h"
#include "FatTable.h"

namespace vorlix {
namespace {

constexpr size_t kBootSector = 512;
constexpr uint64_t kEntrySize = 32;
constexpr uint64_t kMostTables = 4;  // usually there are two, sometimes one
// The largest numbers of clusters whose numbers are not special marks in the table.
constexpr uint64_t kMostClusters12 = 4084;
constexpr uint64_t kMostClusters16 = 65524;
constexpr uint64_t kMostClusters32 = 0x0FFFFFF5;
constexpr uint64_t kOneTableOnly = 0x80;  // in the flags of FAT32: the other tables are not updated

using BootSector = std::array<uint8_t, kBootSector>;

bool isPowerOfTwo(uint64_t value) {
  return value != 0 && (value & (value - 1)) == 0;
}

uint64_t bitsOf(FatWidth width) {
  return width == FatWidth::bits32 ? 32 : width == FatWidth::bits16 ? 16 : 12;
}

std::optional<FatLayout> layoutOf(const BootSector& boot, uint64_t windowSize) {
  const auto field = [&](size_t offset, size_t count) -> uint64_t { return littleEndian(boot.data() + offset, count); };
  const uint64_t sector = field(11, 2);
  const uint64_t sectorsPerCluster = field(13, 1);
  const uint64_t reserved = field(14, 2);
  const uint64_t tableCount = field(16, 1);
  const uint64_t rootEntries = field(17, 2);
  const uint64_t total = field(19, 2) != 0 ? field(19, 2) : field(32, 4);
  const bool isFAT32 = field(22, 2) == 0;
  const uint64_t tableSectors = isFAT32 ? field(36, 4) : field(22, 2);
  if (sector < 512 || sector > 4096 || !isPowerOfTwo(sector) || !isPowerOfTwo(sectorsPerCluster)) return std::nullopt;
  if (reserved == 0 || tableCount == 0 || tableCount > kMostTables || tableSectors == 0) return std::nullopt;
  if (total * sector > windowSize || (isFAT32 && (field(40, 2) & kOneTableOnly) != 0)) return std::nullopt;

  FatLayout layout;
  const uint64_t rootSectors = (rootEntries * kEntrySize + sector - 1) / sector;
  const uint64_t firstData = reserved + tableCount * tableSectors + rootSectors;
  if (firstData >= total) return std::nullopt;
  const uint64_t clusters = (total - firstData) / sectorsPerCluster;
  layout.width = isFAT32 ? FatWidth::bits32 : clusters <= kMostClusters12 ? FatWidth::bits12 : FatWidth::bits16;
  if (clusters > (isFAT32 ? kMostClusters32 : kMostClusters16)) return std::nullopt;
  if ((clusters + kFirstCluster) * bitsOf(layout.width) > tableSectors * sector * 8) return std::nullopt;
  layout.clusters = static_cast<uint32_t>(clusters);
  layout.clusterSize = sector * sectorsPerCluster;
  layout.tables = reserved * sector;
  layout.tableSize = tableSectors * sector;
  layout.tableCount = static_cast<uint32_t>(tableCount);
  layout.rootArea = (firstData - rootSectors) * sector;
  layout.rootAreaEnd = firstData * sector;
  layout.rootCluster = isFAT32 ? static_cast<uint32_t>(field(44, 4)) : 0;
  layout.totalSize = total * sector;
  return layout;
}

}  // namespace

bool FatSource::read(uint8_t* to, size_t count, uint64_t offset) const {
  if (offset > window_.size || count > window_.size - offset) {
    errno = EUCLEAN;
    return false;
  }
  size_t done = 0;
  while (done < count) {
    const ssize_t got = pread(descriptor_, to + done, count - done, static_cast<off_t>(window_.offset + offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = EIO;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  if (changed_ != nullptr) putChanged(to, count, offset);
  return true;
}

void FatSource::putChanged(uint8_t* to, size_t count, uint64_t offset) const {
  for (auto sector = changed_->lower_bound(offset / kFatSector * kFatSector); sector != changed_->end(); ++sector) {
    if (sector->first >= offset + count) break;
    const uint64_t from = std::max(offset, sector->first);
    const uint64_t end = std::min(offset + count, sector->first + kFatSector);
    std::copy_n(sector->second.data() + (from - sector->first), end - from, to + (from - offset));
  }
}

uint64_t FatSource::nextData(uint64_t offset) const {
  if (offset >= window_.size) return window_.size;
  const off_t found = lseek(descriptor_, static_cast<off_t>(window_.offset + offset), SEEK_DATA);
  if (found < 0 && errno != ENXIO) return offset;
  const uint64_t data =
      found < 0 ? window_.size : std::min(static_cast<uint64_t>(found) - window_.offset, window_.size);
  if (changed_ == nullptr) return data;
  const auto sector = changed_->lower_bound(offset / kFatSector * kFatSector);
  return sector == changed_->end() ? data : std::min(data, std::max(offset, sector->first));
}

Refusal readFatLayout(const FatSource& source, FatLayout& layout) {
  BootSector boot = {};
  if (!source.read(boot.data(), boot.size(), 0)) return dissenterFor(errno, "reading the boot sector");
  const std::optional<FatLayout> found = layoutOf(boot, source.size());
  if (!found) return Dissenter{kDissentUnsupported, "the FAT file system is damaged or larger than its partition"};
  layout = *found;
  return std::nullopt;
}

// Leaves out the bytes that are patched (hidden sectors and serial, 28 to 31 and 72 to 79), the flags of a mounted
// volume, and boot code.
std::optional<uint64_t> readFatIdentity(const FatSource& source) {
  constexpr std::pair<size_t, size_t> kLasting[] = {{11, 28}, {32, 37}, {38, 65}, {66, 72}};
  BootSector boot = {};
  if (!source.read(boot.data(), boot.size(), 0)) return std::nullopt;
  FatDigest digest;
  for (const auto& [from, to] : kLasting) digest.add(boot.data() + from, to - from);
  return digest.value();
}

Refusal readFatSpace(int descriptor, Extent window, FatSpace& space) {
  const FatSource source(descriptor, window);
  FatLayout layout;
  if (Refusal refusal = readFatLayout(source, layout)) return refusal;
  FatTable table;
  if (Refusal refusal = table.read(source, layout, FatTable::Copies::first)) return refusal;
  space.total = uint64_t{layout.clusters} * layout.clusterSize;
  space.free = uint64_t{table.freeClusters()} * layout.clusterSize;
  return std::nullopt;
}

}  // namespace vorlix
