// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <optional>

#include "VolumeBytes.h"

namespace vorlix {
namespace {

constexpr uint64_t kFirstHeapCluster = 2;
constexpr size_t kChecksumSectors = 11;  // of the boot region; the next one holds their checksum
constexpr uint16_t kSecondFATIsActive = 0x01;
constexpr uint16_t kVolumeIsDirty = 0x02;
constexpr uint16_t kMediumHasFailed = 0x04;
constexpr uint8_t kBitmapEntry = 0x81;
constexpr size_t kRecordSize = 32;
constexpr uint64_t kMostRootClusters = 65536;  // 256 MiB, the largest folder of exFAT, in clusters of 4 KiB

struct ExFATGeometry {
  uint64_t sector = 0;
  uint64_t clusterSize = 0;
  uint64_t table = 0;  // byte offset
  uint64_t heap = 0;   // byte offset of the first cluster
  uint64_t clusters = 0;
  uint64_t root = 0;

  bool hasCluster(uint64_t number) const {
    return number >= kFirstHeapCluster && number - kFirstHeapCluster < clusters;
  }
  uint64_t offsetOf(uint64_t cluster) const { return heap + (cluster - kFirstHeapCluster) * clusterSize; }
};

struct BitmapPlace {
  uint64_t cluster;
  uint64_t size;  // bytes
};

ExFATGeometry exFATGeometryOf(std::span<const uint8_t> boot, uint64_t volumeSize) {
  const unsigned sectorShift = boot[108];
  const unsigned clusterShift = boot[109];
  const uint64_t sectors = littleEndian(boot, 72, 8);
  const bool isSane = sectorShift >= 9 && sectorShift <= 12 && sectorShift + clusterShift <= 25;
  if (!isSane || boot[110] == 0 || boot[110] > 2) throw AllocationDoubt("its exFAT boot sector is damaged");
  if (sectors > volumeSize >> sectorShift) throw CutOff("exFAT");
  ExFATGeometry exfat;
  exfat.sector = uint64_t{1} << sectorShift;
  exfat.clusterSize = exfat.sector << clusterShift;
  exfat.table = littleEndian(boot, 80, 4) << sectorShift;
  exfat.heap = littleEndian(boot, 88, 4) << sectorShift;
  exfat.clusters = littleEndian(boot, 92, 4);
  exfat.root = littleEndian(boot, 96, 4);
  const uint64_t tableSize = littleEndian(boot, 84, 4) << sectorShift;
  const uint64_t total = sectors << sectorShift;
  const bool fits = exfat.table != 0 && exfat.table + tableSize <= exfat.heap && exfat.heap < total &&
                    exfat.clusters != 0 && exfat.clusters <= (total - exfat.heap) / exfat.clusterSize &&
                    (exfat.clusters + kFirstHeapCluster) * 4 <= tableSize;
  if (!fits || !exfat.hasCluster(exfat.root)) throw AllocationDoubt("its exFAT boot sector is damaged");
  return exfat;
}

// The volume's flags and its percentage in use are left out, since they change without the boot region being rewritten.
void checkBootRegion(const VolumeBytes& volume, uint64_t sector) {
  const std::vector<uint8_t> region = volume.read(0, static_cast<size_t>(sector) * (kChecksumSectors + 1));
  const size_t end = static_cast<size_t>(sector) * kChecksumSectors;
  uint32_t sum = 0;
  for (size_t i = 0; i < end; ++i) {
    if (i == 106 || i == 107 || i == 112) continue;
    sum = (sum << 31 | sum >> 1) + region[i];
  }
  for (size_t i = end; i < region.size(); i += 4) {
    if (littleEndian(region, i, 4) != sum) throw AllocationDoubt("its exFAT boot region has a wrong checksum");
  }
}

void checkFlags(std::span<const uint8_t> boot) {
  const uint64_t flags = littleEndian(boot, 106, 2);
  if ((flags & kVolumeIsDirty) != 0) throw AllocationDoubt("the volume was not unmounted cleanly");
  if ((flags & kMediumHasFailed) != 0) throw AllocationDoubt("the volume has had read or write errors");
  if (boot[110] != 1 || (flags & kSecondFATIsActive) != 0) throw AllocationDoubt("it has two allocation bitmaps");
}

// The cluster that follows another in its chain; absent at the end.
std::optional<uint64_t> nextCluster(const VolumeBytes& volume, const ExFATGeometry& exfat, uint64_t cluster) {
  const uint64_t next = littleEndian(volume.read(exfat.table + cluster * 4, 4), 0, 4);
  if (next == 0xFFFFFFFF) return std::nullopt;
  if (!exfat.hasCluster(next)) throw AllocationDoubt("its file allocation table is damaged");
  return next;
}

BitmapPlace findBitmap(const VolumeBytes& volume, const ExFATGeometry& exfat) {
  std::optional<uint64_t> cluster = exfat.root;
  for (uint64_t count = 0; cluster && count < kMostRootClusters; ++count) {
    for (uint64_t start = 0; start < exfat.clusterSize; start += kLargestRead) {
      const std::vector<uint8_t> records = volume.read(
          exfat.offsetOf(*cluster) + start, static_cast<size_t>(std::min<uint64_t>(exfat.clusterSize, kLargestRead)));
      for (size_t at = 0; at < records.size(); at += kRecordSize) {
        if (records[at] == 0) throw AllocationDoubt("it has no allocation bitmap");
        if (records[at] != kBitmapEntry) continue;
        return {littleEndian(records, at + 20, 4), littleEndian(records, at + 24, 8)};
      }
    }
    cluster = nextCluster(volume, exfat, *cluster);
  }
  throw AllocationDoubt("it has no allocation bitmap");
}

class ExFATBitmap {
 public:
  ExFATBitmap(const VolumeBytes& volume, const ExFATGeometry& exfat) : volume_(volume), exfat_(exfat) {}

  UsedRanges read() {
    const BitmapPlace place = findBitmap(volume_, exfat_);
    if (place.size < (exfat_.clusters + 7) / 8 || !exfat_.hasCluster(place.cluster)) {
      throw AllocationDoubt("its allocation bitmap is damaged");
    }
    own_ = {exfat_.root};
    used_.add(0, exfat_.heap);
    uint64_t done = 0;  // clusters whose bits were read
    std::optional<uint64_t> cluster = place.cluster;
    while (done < exfat_.clusters) {
      if (!cluster) throw AllocationDoubt("its allocation bitmap is damaged");
      own_.push_back(*cluster);
      for (uint64_t start = 0; start < exfat_.clusterSize && done < exfat_.clusters; start += kLargestRead) {
        readPiece(exfat_.offsetOf(*cluster) + start, std::min<uint64_t>(exfat_.clusterSize, kLargestRead), done);
      }
      if (done < exfat_.clusters) cluster = nextCluster(volume_, exfat_, *cluster);
    }
    return std::move(used_);
  }

  /// The clusters of the root folder's start and of the bitmap itself, which the bitmap must have as in use.
  const std::vector<uint64_t>& own() const { return own_; }

 private:
  void readPiece(uint64_t offset, uint64_t size, uint64_t& done) {
    const uint64_t bits = std::min(size * 8, exfat_.clusters - done);
    const std::vector<uint8_t> bytes = volume_.read(offset, static_cast<size_t>((bits + 7) / 8));
    addBits(bytes, bits, exfat_.heap + done * exfat_.clusterSize, exfat_.clusterSize, used_);
    done += bits;
  }

  const VolumeBytes& volume_;
  const ExFATGeometry& exfat_;
  UsedRanges used_;
  std::vector<uint64_t> own_;
};

}  // namespace

void readExFATAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result) {
  result.fileSystem = "exfat";
  const ExFATGeometry exfat = exFATGeometryOf(boot, volume.size());
  result.clusterSize = static_cast<uint32_t>(exfat.clusterSize);
  checkBootRegion(volume, exfat.sector);
  checkFlags(boot);
  ExFATBitmap bitmap(volume, exfat);
  UsedRanges used = bitmap.read();
  const uint64_t end = exfat.heap + exfat.clusters * exfat.clusterSize;
  used.add(end, volume.size() - end);
  std::vector<ByteRange> ranges = used.take();
  for (const uint64_t cluster : bitmap.own()) {
    if (!isCovered(ranges, {exfat.offsetOf(cluster), exfat.clusterSize})) {
      throw AllocationDoubt("its allocation bitmap does not count its own clusters as in use");
    }
  }
  result.used = std::move(ranges);
}

}  // namespace vorlix
