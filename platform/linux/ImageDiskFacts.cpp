// SPDX-License-Identifier: Apache-2.0
#include "ImageDiskFacts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <Vorlix/platform/Descriptor.h>
#include "ImageFiles.h"
#include "KernelDisks.h"
#include "PartitionProbe.h"
#include "platform/posix/PartitionExtents.h"

namespace vorlix {

std::optional<DiskFacts> imageDiskFacts(const std::string& root, const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  DiskFacts disk;
  disk.bsdName = imageBSDName(path);
  disk.location = std::filesystem::path(path).filename();
  disk.product = "Disk Image";
  disk.rotational = isRotational(root, status.st_dev);
  disk.size = static_cast<uint64_t>(status.st_size);
  disk.writable = access(path.c_str(), W_OK) == 0;
  const Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!descriptor) return disk;
  disk.blockSize = imageBlockSize(descriptor.get());
  const ProbedTable table = probePartitionTable(descriptor.get(), disk.size, disk.blockSize);
  disk.content = schemeContent(table.scheme);
  disk.uuid = table.uuid;
  for (const ProbedEntry& entry : table.entries) {
    disk.slices.push_back({entry.number, disk.bsdName + "s" + std::to_string(entry.number), entry.extent, disk.writable,
                           entry.uuid, entry.content});
  }
  return disk;
}

}  // namespace vorlix
