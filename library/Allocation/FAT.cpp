// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>

#include "VolumeBytes.h"

namespace vorlix {
namespace {

constexpr uint64_t kFirstFATCluster = 2;
constexpr uint64_t kMostFAT12Clusters = 4084;
constexpr uint64_t kMostFAT16Clusters = 65524;
constexpr uint64_t kMostFAT32Clusters = 0x0FFFFFF5;
constexpr uint64_t kDirectoryEntrySize = 32;
constexpr uint8_t kStateIsDirty = 0x01;  // of the boot sector's state byte
constexpr uint64_t kOneTableOnly = 0x80;

struct FATGeometry {
  uint64_t sector = 0;
  uint64_t clusterSize = 0;
  uint64_t tables = 0;  // byte offset of the first
  uint64_t tableSize = 0;
  uint64_t tableCount = 0;
  uint64_t data = 0;  // byte offset of the first cluster
  uint64_t clusters = 0;
  uint64_t total = 0;
  unsigned bits = 0;

  uint64_t mask() const { return bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF; }
  uint64_t badMark() const { return mask() - 8; }
};

FATGeometry geometryOf(std::span<const uint8_t> boot) {
  FATGeometry fat;
  fat.sector = littleEndian(boot, 11, 2);
  const uint64_t sectorsPerCluster = boot[13];
  const uint64_t reserved = littleEndian(boot, 14, 2);
  fat.tableCount = boot[16];
  const uint64_t rootEntries = littleEndian(boot, 17, 2);
  const uint64_t shortTotal = littleEndian(boot, 19, 2);
  const uint64_t shortTable = littleEndian(boot, 22, 2);
  const uint64_t total = shortTotal != 0 ? shortTotal : littleEndian(boot, 32, 4);
  const uint64_t table = shortTable != 0 ? shortTable : littleEndian(boot, 36, 4);
  const uint64_t rootSectors = (rootEntries * kDirectoryEntrySize + fat.sector - 1) / fat.sector;
  const uint64_t data = reserved + fat.tableCount * table + rootSectors;
  if (table == 0 || data >= total) throw AllocationDoubt("its FAT boot sector is damaged");
  fat.clusterSize = fat.sector * sectorsPerCluster;
  fat.tables = reserved * fat.sector;
  fat.tableSize = table * fat.sector;
  fat.data = data * fat.sector;
  fat.total = total * fat.sector;
  fat.clusters = (total - data) / sectorsPerCluster;
  fat.bits = shortTable == 0 ? 32 : fat.clusters <= kMostFAT12Clusters ? 12 : 16;
  return fat;
}

void checkGeometry(const FATGeometry& fat, std::span<const uint8_t> boot, uint64_t volumeSize) {
  if (fat.total > volumeSize) throw CutOff("FAT");
  const bool fits = (fat.clusters + kFirstFATCluster) * fat.bits <= fat.tableSize * 8;
  const bool isSmallEnough = fat.clusters <= (fat.bits == 32 ? kMostFAT32Clusters : kMostFAT16Clusters);
  if (!fits || !isSmallEnough || fat.clusters == 0) throw AllocationDoubt("its FAT boot sector is damaged");
  if (fat.bits == 32 && (littleEndian(boot, 40, 2) & kOneTableOnly) != 0) {
    throw AllocationDoubt("only one of its file allocation tables is kept up");
  }
  if ((boot[fat.bits == 32 ? 65 : 37] & kStateIsDirty) != 0) {
    throw AllocationDoubt("the volume was not unmounted cleanly");
  }
}

uint64_t entryOf(std::span<const uint8_t> table, uint64_t number, const FATGeometry& fat) {
  if (fat.bits != 12) return littleEndian(table, number * fat.bits / 8, fat.bits / 8) & fat.mask();
  return littleEndian(table, number * 3 / 2, 2) >> (number % 2 * 4) & fat.mask();
}

// The first two entries: the medium's byte, and from 16 bits on the marks of a clean unmount.
void checkFirstEntries(std::span<const uint8_t> table, const FATGeometry& fat, uint8_t medium) {
  const uint64_t second = entryOf(table, 1, fat);
  if ((entryOf(table, 0, fat) & 0xFF) != medium) throw AllocationDoubt("its file allocation table is damaged");
  const uint64_t clean = fat.bits == 16 ? 0x8000 : 0x08000000;
  const uint64_t noErrors = clean >> 1;
  if (fat.bits == 12) return;
  if ((second & clean) == 0) throw AllocationDoubt("the volume was not unmounted cleanly");
  if ((second & noErrors) == 0) throw AllocationDoubt("the volume has had read or write errors");
}

void checkCopies(const VolumeBytes& volume, const FATGeometry& fat, uint64_t offset, std::span<const uint8_t> piece) {
  std::vector<uint8_t> other(piece.size());
  for (uint64_t copy = 1; copy < fat.tableCount; ++copy) {
    volume.read(fat.tables + copy * fat.tableSize + offset, other);
    if (!std::equal(piece.begin(), piece.end(), other.begin())) {
      throw AllocationDoubt("its file allocation tables differ");
    }
  }
}

// Whole entries of any width.
constexpr uint64_t kPieceSize = kLargestRead / 12 * 12;

}  // namespace

bool looksLikeFAT(std::span<const uint8_t> boot) {
  const uint64_t sector = littleEndian(boot, 11, 2);
  const bool jumps = (boot[0] == 0xEB && boot[2] == 0x90) || boot[0] == 0xE9;
  return jumps && sector >= 512 && sector <= 4096 && isPowerOfTwo(sector) && isPowerOfTwo(boot[13]) &&
         littleEndian(boot, 14, 2) != 0 && boot[16] >= 1 && boot[16] <= 2 && (boot[21] == 0xF0 || boot[21] >= 0xF8);
}

void readFATAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result) {
  const FATGeometry fat = geometryOf(boot);
  result.fileSystem = "fat" + std::to_string(fat.bits);
  result.clusterSize = static_cast<uint32_t>(fat.clusterSize);
  checkGeometry(fat, boot, volume.size());

  UsedRanges used;
  used.add(0, fat.data);
  const uint64_t entries = fat.clusters + kFirstFATCluster;
  const uint64_t bytes = (entries * fat.bits + 7) / 8;
  const uint64_t rootCluster = fat.bits == 32 ? littleEndian(boot, 44, 4) : 0;
  bool hasRoot = fat.bits != 32;
  uint64_t number = 0;
  for (uint64_t offset = 0; offset < bytes; offset += kPieceSize) {
    const std::vector<uint8_t> piece =
        volume.read(fat.tables + offset, static_cast<size_t>(std::min(kPieceSize, bytes - offset)));
    checkCopies(volume, fat, offset, piece);
    if (offset == 0) checkFirstEntries(piece, fat, boot[21]);
    const uint64_t first = offset * 8 / fat.bits;
    const uint64_t end = std::min(entries, (offset + piece.size()) * 8 / fat.bits);
    for (number = std::max(first, kFirstFATCluster); number < end; ++number) {
      const uint64_t entry = entryOf(piece, number - first, fat);
      if (entry == 0 || entry == fat.badMark()) continue;
      if (number == rootCluster) hasRoot = true;
      used.add(fat.data + (number - kFirstFATCluster) * fat.clusterSize, fat.clusterSize);
    }
  }
  if (!hasRoot) throw AllocationDoubt("its root folder is not in use");
  const uint64_t end = fat.data + fat.clusters * fat.clusterSize;
  used.add(end, volume.size() - end);
  result.used = used.take();
}

}  // namespace vorlix
