// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/VolumeFacts.h>

#include <Vorlix/foundation/LittleEndian.h>

#include <bit>
#include <cstring>
#include <limits>

namespace vorlix {
namespace {

constexpr size_t kVolumeNameOffset = 3;  // of the system that made the volume; NTFS and exFAT have a fixed one
constexpr uint64_t kLargestVolume = std::numeric_limits<int64_t>::max();

uint64_t field(Bytes start, size_t offset, size_t count) {
  return littleEndian(start.data() + offset, count);
}

bool isNamed(Bytes start, const char* name) {
  return std::memcmp(start.data() + kVolumeNameOffset, name, std::strlen(name)) == 0;
}

bool isSectorSize(uint64_t size) {
  return std::has_single_bit(size) && size >= 512 && size <= 4096;
}

std::optional<VolumeFacts> checked(VolumeFormat format, uint64_t sectorSize, uint64_t sectorCount,
                                   uint64_t sectorsPerCluster) {
  constexpr uint64_t kLargestCluster = uint64_t{32} << 20;  // of exFAT
  if (!isSectorSize(sectorSize) || sectorCount == 0 || sectorCount > kLargestVolume / sectorSize) return std::nullopt;
  if (!std::has_single_bit(sectorsPerCluster) || sectorsPerCluster > kLargestCluster / sectorSize) return std::nullopt;
  return VolumeFacts{format, static_cast<uint32_t>(sectorSize), sectorCount,
                     static_cast<uint32_t>(sectorSize * sectorsPerCluster)};
}

std::optional<VolumeFacts> ntfsFacts(Bytes start) {
  constexpr uint64_t kLargestPlainCount = 128;
  uint64_t perCluster = field(start, 13, 1);
  if (perCluster > kLargestPlainCount) {  // of larger clusters, the negative exponent
    if (perCluster < 256 - 16) return std::nullopt;
    perCluster = uint64_t{1} << (256 - perCluster);
  }
  const uint64_t sectors = field(start, 40, 8);
  if (sectors == 0 || sectors >= kLargestVolume) return std::nullopt;
  return checked(VolumeFormat::ntfs, field(start, 11, 2), sectors + 1, perCluster);
}

std::optional<VolumeFacts> exfatFacts(Bytes start) {
  const uint64_t sectorShift = field(start, 108, 1);
  const uint64_t clusterShift = field(start, 109, 1);
  if (sectorShift > 12 || clusterShift > 25) return std::nullopt;
  return checked(VolumeFormat::exfat, uint64_t{1} << sectorShift, field(start, 72, 8), uint64_t{1} << clusterShift);
}

std::optional<VolumeFacts> fatFacts(Bytes start) {
  constexpr size_t kDirectoryEntry = 32;
  constexpr uint64_t kClustersOfFAT16 = 4085;
  constexpr uint64_t kClustersOfFAT32 = 65525;
  const uint64_t jump = field(start, 0, 1);
  const uint64_t medium = field(start, 21, 1);
  const uint64_t sectorSize = field(start, 11, 2);
  const uint64_t perCluster = field(start, 13, 1);
  const uint64_t reserved = field(start, 14, 2);
  const uint64_t tables = field(start, 16, 1);
  if (field(start, 510, 2) != kMBRSignature || (jump != 0xEB && jump != 0xE9)) return std::nullopt;
  if (medium != 0xF0 && medium < 0xF8) return std::nullopt;
  if (!isSectorSize(sectorSize) || !std::has_single_bit(perCluster) || reserved == 0 || tables == 0) {
    return std::nullopt;
  }
  const uint64_t shortCount = field(start, 19, 2);
  const uint64_t sectors = shortCount != 0 ? shortCount : field(start, 32, 4);
  const uint64_t shortTable = field(start, 22, 2);
  const uint64_t tableSize = shortTable != 0 ? shortTable : field(start, 36, 4);
  const uint64_t root = (field(start, 17, 2) * kDirectoryEntry + sectorSize - 1) / sectorSize;
  const uint64_t before = reserved + tables * tableSize + root;
  if (tableSize == 0 || before >= sectors) return std::nullopt;
  const uint64_t clusters = (sectors - before) / perCluster;
  VolumeFormat format = VolumeFormat::fat12;
  if (clusters >= kClustersOfFAT16) format = VolumeFormat::fat16;
  if (clusters >= kClustersOfFAT32) format = VolumeFormat::fat32;
  if (shortTable == 0) format = VolumeFormat::fat32;  // only FAT32 has the long field, however small the volume is
  return checked(format, sectorSize, sectors, perCluster);
}

}  // namespace

const char* nameOf(VolumeFormat format) {
  switch (format) {
    case VolumeFormat::ntfs:
      return "NTFS";
    case VolumeFormat::fat12:
      return "FAT12";
    case VolumeFormat::fat16:
      return "FAT16";
    case VolumeFormat::fat32:
      return "FAT32";
    case VolumeFormat::exfat:
      return "exFAT";
  }
  return "";
}

std::optional<VolumeFacts> volumeFacts(Bytes start) {
  if (start.size() < kSectorSize) return std::nullopt;
  if (isNamed(start, "NTFS    ")) return ntfsFacts(start);
  if (isNamed(start, "EXFAT   ")) return exfatFacts(start);
  return fatFacts(start);
}

}  // namespace vorlix
