// SPDX-License-Identifier: Apache-2.0
//
// Reads arbitrary bytes as the start of a FAT volume. The image is a sparse file: the input, followed by a hole of 64
// KiB times the input's byte 3. That byte belongs to the OEM name, which no reader uses.
#include <unistd.h>
#include "platform/linux/FatVolume.h"

#include <algorithm>
#include <set>
#include <vector>

#include "FuzzSupport.h"

namespace {

constexpr size_t kLargestInput = size_t{1} << 20;

int imageDescriptor() {
  static std::FILE* const file = std::tmpfile();
  FUZZ_CHECK(file != nullptr);
  return fileno(file);
}

uint64_t makeImage(int descriptor, const uint8_t* data, size_t size) {
  const uint64_t imageSize = size + (size > 3 ? uint64_t{data[3]} * 65536 : 0);
  FUZZ_CHECK(ftruncate(descriptor, 0) == 0);
  FUZZ_CHECK(ftruncate(descriptor, static_cast<off_t>(imageSize)) == 0);
  FUZZ_CHECK(pwrite(descriptor, data, size, 0) == static_cast<ssize_t>(size));
  return imageSize;
}

void checkClusters(const vorlix::FatVolume& volume) {
  std::vector<bool> seen(volume.layout().clusters);
  uint64_t reached = 0;
  const auto take = [&](const std::vector<vorlix::FatRun>& runs) {
    for (const vorlix::FatRun& run : runs) {
      for (uint32_t cluster = run.first; cluster < run.first + run.count; ++cluster) {
        FUZZ_CHECK(volume.layout().hasCluster(cluster));
        FUZZ_CHECK(!seen[cluster - vorlix::kFirstCluster]);
        FUZZ_CHECK(volume.table().next(cluster) != 0);
        seen[cluster - vorlix::kFirstCluster] = true;
        ++reached;
      }
    }
  };
  take(volume.rootRuns());
  for (const vorlix::FatEntry& entry : volume.entries()) take(entry.runs);
  FUZZ_CHECK(reached + volume.lostClusters() + volume.freeClusters() == volume.layout().clusters);
}

void checkEntry(const vorlix::FatVolume& volume, const vorlix::FatEntry& entry) {
  const std::string name = entry.path.substr(entry.path.rfind('/') + 1);
  FUZZ_CHECK(entry.path.front() == '/' && !name.empty() && name != "." && name != "..");
  FUZZ_CHECK(std::none_of(name.begin(), name.end(), [](unsigned char byte) { return byte < 0x20 || byte == '\\'; }));
  FUZZ_CHECK(volume.find(entry.path) == &entry);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  const int image = imageDescriptor();
  const vorlix::Extent window = {0, makeImage(image, data, size)};
  vorlix::FatVolume volume;
  if (volume.read(image, window)) return 0;

  FUZZ_CHECK(volume.layout().totalSize <= window.size);
  checkClusters(volume);
  std::set<std::string> folders = {""};
  size_t found = 0;
  for (const vorlix::FatEntry& entry : volume.entries()) {
    FUZZ_CHECK(folders.count(entry.path.substr(0, entry.path.rfind('/'))) == 1);
    if (entry.isFolder) {
      folders.insert(entry.path);
      continue;
    }
    if (++found <= 64) checkEntry(volume, entry);  // checkEntry() searches all names, so limit the calls
    uint64_t last = 0;
    const auto refusal = volume.readFile(image, window, entry, [&](uint64_t offset, const uint8_t*, size_t count) {
      FUZZ_CHECK(offset >= last && offset + count <= entry.size);
      last = offset + count;
      return vorlix::Refusal();
    });
    FUZZ_CHECK(!refusal);
  }
  return 0;
}
