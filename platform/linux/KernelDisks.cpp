// SPDX-License-Identifier: Apache-2.0
#include "KernelDisks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/SliceName.h>
#include "PartitionProbe.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, error))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Limits numbers from files, so that a size in bytes fits the registry's signed numbers.
uint64_t bytesOf(std::optional<uint64_t> sectors) {
  constexpr uint64_t kMost = uint64_t{std::numeric_limits<int64_t>::max()} / kSysfsSector;
  return std::min(sectors.value_or(0), kMost) * kSysfsSector;
}

std::map<std::string, std::string> udevRecord(const std::string& root, const fs::path& folder) {
  const std::optional<std::string> number = readTrimmed(folder / "dev");
  return number ? readUdevRecord(*number, root) : std::map<std::string, std::string>();
}

// Does not block for a disk without a medium or with a slow one.
Descriptor openDisk(const std::string& root, const fs::path& folder, const std::string& bsdName) {
  Descriptor descriptor(open((root + "/dev/" + bsdName).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!descriptor || fstat(descriptor.get(), &status) != 0 || !S_ISBLK(status.st_mode)) return Descriptor();
  return readDeviceNumber(folder / "dev") == status.st_rdev ? std::move(descriptor) : Descriptor();
}

void readDevice(const fs::path& folder, DiskFacts& disk) {
  const fs::path device = folder / "device";
  disk.rotational = readFlag(folder / "queue" / "rotational");
  disk.product = readTrimmed(device / "model");
  if (!disk.product) disk.product = readTrimmed(device / "name");  // memory cards
  disk.vendor = readTrimmed(device / "vendor");
  // Neither "ATA", which the SCSI translation reports for every ATA disk, nor the number of a PCI vendor is a name.
  if (disk.vendor && (*disk.vendor == "ATA" || disk.vendor->rfind("0x", 0) == 0)) disk.vendor.reset();
}

std::vector<SliceFacts> kernelSlices(const fs::path& folder) {
  std::vector<SliceFacts> slices;
  const std::string disk = folder.filename();
  for (const std::string& name : namesIn(folder)) {
    if (!name.starts_with(disk)) continue;  // the name of a slice is that of its disk with a number
    const std::optional<uint64_t> number = readWholeNumber(folder / name / "partition");
    if (!number || *number == 0 || *number > std::numeric_limits<uint32_t>::max()) continue;
    SliceFacts slice;
    slice.number = static_cast<uint32_t>(*number);
    slice.bsdName = withSlashes(name);
    slice.extent = {bytesOf(readWholeNumber(folder / name / "start")),
                    bytesOf(readWholeNumber(folder / name / "size"))};
    slice.writable = readFlag(folder / name / "ro") == false;
    slices.push_back(std::move(slice));
  }
  return slices;
}

// Reads what udev found when the disk was attached. Its record of a slice can be older than the slice.
void readUdev(const std::string& root, const fs::path& folder, DiskFacts& disk) {
  auto record = udevRecord(root, folder);
  disk.content = schemeContent(record["ID_PART_TABLE_TYPE"]);
  if (record["ID_PART_TABLE_TYPE"] == "gpt") disk.uuid = UUID::fromText(record["ID_PART_TABLE_UUID"]);
  for (SliceFacts& slice : disk.slices) {
    auto entry = udevRecord(root, folder / withoutSlashes(slice.bsdName));
    if (entry["ID_PART_ENTRY_NUMBER"] != std::to_string(slice.number)) continue;
    if (entry["ID_PART_ENTRY_OFFSET"] != std::to_string(slice.extent.offset / kSysfsSector)) continue;
    slice.content = tableContent(entry["ID_PART_ENTRY_TYPE"]);
    if (entry["ID_PART_ENTRY_SCHEME"] == "gpt") slice.uuid = UUID::fromText(entry["ID_PART_ENTRY_UUID"]);
  }
}

// Reads the table on the disk. The kernel may still use an older one: its slices stay, and only an entry with the same
// start identifies a slice.
void readTable(int descriptor, DiskFacts& disk) {
  const ProbedTable table = probePartitionTable(descriptor, disk.size, disk.blockSize);
  disk.content = schemeContent(table.scheme);
  disk.uuid = table.uuid;
  const size_t kernelCount = disk.slices.size();
  for (const ProbedEntry& entry : table.entries) {
    const auto end = disk.slices.begin() + static_cast<ptrdiff_t>(kernelCount);
    const auto known =
        std::find_if(disk.slices.begin(), end, [&](const SliceFacts& slice) { return slice.number == entry.number; });
    if (known == end) {
      disk.slices.push_back({entry.number, disk.bsdName + "s" + std::to_string(entry.number), entry.extent,
                             disk.writable, entry.uuid, entry.content});
    } else if (known->extent.offset == entry.extent.offset) {
      known->uuid = entry.uuid;
      known->content = entry.content;
    }
  }
}

std::optional<DiskFacts> readDisk(const std::string& root, const std::string& kernelName) {
  const fs::path folder = fs::path(root + "/sys/block") / kernelName;
  std::error_code error;
  if (readFlag(folder / "hidden") == true) return std::nullopt;
  DiskFacts disk;
  disk.bsdName = withSlashes(kernelName);
  disk.location = kernelName;
  disk.size = bytesOf(readWholeNumber(folder / "size"));
  disk.hasMedium = disk.size != 0;
  if (!disk.hasMedium && !fs::exists(folder / "device", error)) return std::nullopt;
  readDevice(folder, disk);
  if (!disk.hasMedium) return disk;
  const uint64_t blockSize = readWholeNumber(folder / "queue" / "logical_block_size").value_or(kSysfsSector);
  disk.blockSize = static_cast<uint32_t>(std::min<uint64_t>(blockSize, std::numeric_limits<uint32_t>::max()));
  disk.removable = readFlag(folder / "removable") == true;
  disk.writable = readFlag(folder / "ro") == false;
  disk.slices = kernelSlices(folder);
  if (const Descriptor descriptor = openDisk(root, folder, disk.bsdName)) {
    readTable(descriptor.get(), disk);
  } else {
    readUdev(root, folder, disk);
  }
  std::sort(disk.slices.begin(), disk.slices.end(),
            [](const SliceFacts& left, const SliceFacts& right) { return left.number < right.number; });
  return disk;
}

}  // namespace

std::vector<DiskFacts> kernelDisks(const std::string& root) {
  std::vector<DiskFacts> disks;
  for (const std::string& name : namesIn(root + "/sys/block")) {
    if (auto disk = readDisk(root, name)) disks.push_back(*std::move(disk));
  }
  return disks;
}

std::optional<DiskFacts> kernelDiskOf(const std::string& root, const std::string& name) {
  const std::string kernelName = withoutSlashes(name);
  const std::vector<std::string> disks = namesIn(root + "/sys/block");
  if (std::find(disks.begin(), disks.end(), kernelName) != disks.end()) return readDisk(root, kernelName);
  std::error_code error;
  for (const std::string& disk : disks) {
    if (fs::exists(fs::path(root + "/sys/block") / disk / kernelName / "partition", error)) return readDisk(root, disk);
  }
  const std::optional<SliceName> slice = parseSliceName(kernelName);
  if (!slice || std::find(disks.begin(), disks.end(), slice->whole) == disks.end()) return std::nullopt;
  return readDisk(root, slice->whole);
}

std::optional<bool> isRotational(const std::string& root, dev_t number) {
  const std::optional<fs::path> folder = sysfsFolderOfDisk(number, root);
  return folder ? readFlag(*folder / "queue" / "rotational") : std::nullopt;
}

}  // namespace vorlix
