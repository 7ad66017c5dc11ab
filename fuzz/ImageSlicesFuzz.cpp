// SPDX-License-Identifier: Apache-2.0
//
// Finds the slices of a disk-image file with arbitrary content. The first byte of the boot code, which no reader uses,
// sets the size of the hole after the input: that many times 64 KiB, minus 37 bytes if the number is odd.
#include <unistd.h>
#include "platform/posix/PartitionExtents.h"

#include <cstring>

#include "FuzzSupport.h"

namespace {

constexpr size_t kLargestInput = size_t{1} << 20;
constexpr uint32_t kNumbers[] = {0, 1, 2, 3, 4, 5, 64, 127, 128, 129, 65536, 0x7FFFFFFF, 0xFFFFFFFF};

int imageDescriptor() {
  static std::FILE* const file = std::tmpfile();
  FUZZ_CHECK(file != nullptr);
  return fileno(file);
}

uint64_t makeImage(int descriptor, const uint8_t* data, size_t size) {
  uint64_t diskSize = size;
  if (size != 0) {
    diskSize += uint64_t{data[0]} * 65536;
    if ((data[0] & 1) != 0) diskSize -= 37;
  }
  FUZZ_CHECK(ftruncate(descriptor, 0) == 0);
  FUZZ_CHECK(ftruncate(descriptor, static_cast<off_t>(diskSize)) == 0);
  FUZZ_CHECK(pwrite(descriptor, data, size, 0) == static_cast<ssize_t>(size));
  return diskSize;
}

bool hasText(const uint8_t* data, size_t size, size_t offset, const char* text) {
  const size_t length = std::strlen(text);
  return size >= offset + length && std::memcmp(data + offset, text, length) == 0;
}

void checkExtent(const vorlix::Extent& extent, uint64_t diskSize, uint32_t blockSize) {
  FUZZ_CHECK(extent.size > 0);
  FUZZ_CHECK(extent.offset >= blockSize);  // never the MBR
  FUZZ_CHECK(extent.offset < diskSize && extent.size <= diskSize - extent.offset);
  FUZZ_CHECK(extent.offset % blockSize == 0 && extent.size % blockSize == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  const int image = imageDescriptor();
  const uint64_t diskSize = makeImage(image, data, size);

  const uint32_t found = vorlix::imageBlockSize(image);
  const bool at512 = hasText(data, size, 512, "EFI PART");
  const bool at4096 = hasText(data, size, 4096, "EFI PART");
  FUZZ_CHECK(found == 512 || found == 4096);
  if (at512 || at4096)
    FUZZ_CHECK(found == (at512 ? 512 : 4096));  // otherwise the backup header decides, if there is one

  for (const uint32_t blockSize : {512U, 4096U}) {
    const bool hasGPT = blockSize == 512 ? at512 : at4096;
    const auto headerLBA = vorlix::gptHeaderLBA(image, diskSize, blockSize);
    FUZZ_CHECK(hasGPT == (headerLBA == uint64_t{1}));
    if (headerLBA && !hasGPT) FUZZ_CHECK(*headerLBA == diskSize / blockSize - 1);
    const bool hasMBR = hasText(data, size, 510, "\x55\xAA");
    for (const uint32_t number : kNumbers) {
      const auto extent = vorlix::partitionExtent(image, diskSize, blockSize, number);
      if (!extent) continue;
      FUZZ_CHECK(number != 0 && (headerLBA || (hasMBR && number <= 4)));
      checkExtent(*extent, diskSize, blockSize);
    }
  }
  FUZZ_CHECK(!vorlix::partitionExtent(image, diskSize, 0, 1));
  return 0;
}
