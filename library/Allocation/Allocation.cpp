// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Allocation.h>

#include <array>
#include <cstring>
#include <new>

#include "VolumeBytes.h"

namespace vorlix {
namespace {

constexpr size_t kBootSectorSize = 512;
constexpr size_t kNameOffset = 3;

bool hasName(std::span<const uint8_t> boot, const char (&name)[9]) {
  return std::memcmp(boot.data() + kNameOffset, name, 8) == 0;
}

void readInto(const VolumeBytes& volume, Allocation& result) {
  std::array<uint8_t, kBootSectorSize> boot = {};
  volume.read(0, boot);
  const bool isSigned = boot[510] == 0x55 && boot[511] == 0xAA;
  if (isSigned && hasName(boot, "NTFS    ")) {
    readNTFSAllocation(volume, boot, result);
  } else if (isSigned && hasName(boot, "EXFAT   ")) {
    readExFATAllocation(volume, boot, result);
  } else if (isSigned && looksLikeFAT(boot)) {
    readFATAllocation(volume, boot, result);
  } else {
    throw AllocationDoubt("its file system is not NTFS, FAT or exFAT");
  }
}

}  // namespace

uint64_t Allocation::usedBytes() const {
  uint64_t sum = 0;
  for (const ByteRange& range : used) sum += range.size;
  return sum;
}

Allocation readAllocation(const DiskReader& read, uint64_t size) {
  Allocation result;
  const auto takeAll = [&](const AllocationDoubt& doubt) {
    result.doubt = doubt.what();
    result.used.clear();
    if (size > 0) result.used.push_back({0, size});
  };
  try {
    readInto(VolumeBytes(read, size), result);
  } catch (const CutOff& doubt) {
    takeAll(doubt);
    result.isCutOff = true;
  } catch (const AllocationDoubt& doubt) {
    takeAll(doubt);
  }
  return result;
}

}  // namespace vorlix
