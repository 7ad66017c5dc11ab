// SPDX-License-Identifier: Apache-2.0
#include "IORegistry.h"

#include <algorithm>
#include <numeric>

#include <Vorlix/platform/SliceName.h>
#include "DeviceFacts.h"
#include "DeviceNames.h"
#include "ImageDiskFacts.h"
#include "ImageFiles.h"
#include "KernelDisks.h"
#include "RegistryTree.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

constexpr MasterPort kPort = 1;

RegistryTree machineTree(const std::string& root) {
  RegistryNode machine = {"Machine", "", "IOPlatformExpertDevice", {}, 0};
  std::optional<std::string> model = readTrimmed(root + "/sys/class/dmi/id/product_name");
  if (!model) model = readTrimmed(root + "/sys/firmware/devicetree/base/model");
  if (model) {
    Data bytes(model->begin(), model->end());
    bytes.push_back(0);
    machine.properties.set("model", std::move(bytes));
    machine.name = *std::move(model);
  }
  return {{"Root", "", "IORegistryEntry", {}, std::nullopt}, std::move(machine)};
}

std::shared_ptr<const Dictionary> characteristicsOf(const DiskFacts& disk) {
  Dictionary characteristics;
  if (disk.rotational) characteristics.set("Medium Type", std::string(*disk.rotational ? "Rotational" : "Solid State"));
  if (disk.product) characteristics.set("Product Name", *disk.product);
  if (disk.vendor) characteristics.set("Vendor Name", *disk.vendor);
  if (characteristics.values().empty()) return nullptr;
  return std::make_shared<const Dictionary>(std::move(characteristics));
}

Dictionary mediaProperties(const DiskFacts& disk, const std::string& bsdName, uint64_t size, bool isWhole) {
  Dictionary properties;
  properties.set("BSD Name", bsdName);
  properties.set("Whole", isWhole);
  properties.set("Size", static_cast<int64_t>(size));
  properties.set("Preferred Block Size", int64_t{disk.blockSize});
  properties.set("Removable", disk.removable);
  return properties;
}

Dictionary wholeProperties(const DiskFacts& disk) {
  Dictionary properties = mediaProperties(disk, disk.bsdName, disk.size, true);
  properties.set("Writable", disk.writable);
  properties.set("Content", disk.content);
  return properties;
}

std::string schemeClassFor(const std::string& content) {
  if (content == "GUID_partition_scheme") return "IOGUIDPartitionScheme";
  if (content == "FDisk_partition_scheme") return "IOFDiskPartitionScheme";
  return "IOPartitionScheme";
}

Dictionary schemeProperties(const DiskFacts& disk) {
  Dictionary properties;
  if (disk.uuid) properties.set("UUID", disk.uuid->text());
  return properties;
}

Dictionary sliceProperties(const DiskFacts& disk, const SliceFacts& slice) {
  Dictionary properties = mediaProperties(disk, slice.bsdName, slice.extent.size, false);
  properties.set("Writable", slice.writable);
  properties.set("Partition ID", int64_t{slice.number});
  properties.set("Base", static_cast<int64_t>(slice.extent.offset));
  properties.set("Content", slice.content);
  properties.set("Content Hint", slice.content);
  if (slice.uuid) properties.set("UUID", slice.uuid->text());
  return properties;
}

void addDisk(const DiskFacts& disk, RegistryTree& tree) {
  constexpr size_t kMachine = 1;
  const std::string product = disk.product.value_or("Disk");
  const size_t device = tree.size();
  tree.push_back({product, disk.location, "IOBlockStorageDevice", {}, kMachine});
  if (auto characteristics = characteristicsOf(disk)) {
    tree.back().properties.set("Device Characteristics", std::move(characteristics));
  }
  if (!disk.hasMedium) return;
  const size_t whole = tree.size();
  tree.push_back({product + " Media", "", "IOMedia", wholeProperties(disk), device});
  if (disk.content.empty() && disk.slices.empty()) return;
  const size_t scheme = tree.size();
  const std::string schemeClass = schemeClassFor(disk.content);
  tree.push_back({schemeClass, "", schemeClass, schemeProperties(disk), whole});
  for (const SliceFacts& slice : disk.slices) {
    const std::string number = std::to_string(slice.number);
    tree.push_back({"Untitled " + number, number, "IOMedia", sliceProperties(disk, slice), scheme});
  }
}

std::shared_ptr<const RegistryTree> wholeTree(const std::string& root) {
  RegistryTree tree = machineTree(root);
  for (const DiskFacts& disk : kernelDisks(root)) addDisk(disk, tree);
  for (const std::string& name : namedImageFiles()) {
    if (const auto disk = imageDiskFacts(root, name)) addDisk(*disk, tree);
  }
  return std::make_shared<const RegistryTree>(std::move(tree));
}

/// A medium: a disk, or a slice of it if `slice` is not 0.
struct Medium {
  DiskFacts disk;
  uint32_t slice = 0;
};

std::optional<Medium> mediumCalled(const std::string& root, const std::string& name) {
  // An image file comes first, as everywhere else.
  if (const auto location = locateDevice(name); location && location->isImage) {
    std::optional<DiskFacts> disk = imageDiskFacts(root, location->whole);
    if (!disk) return std::nullopt;
    return Medium{*std::move(disk), location->slice};
  }
  std::optional<DiskFacts> disk = kernelDiskOf(root, name);
  if (!disk) return std::nullopt;
  if (disk->bsdName == name) return Medium{*std::move(disk), 0};
  for (const SliceFacts& slice : disk->slices) {
    if (slice.bsdName != name) continue;
    const uint32_t number = slice.number;
    return Medium{*std::move(disk), number};
  }
  const std::optional<SliceName> alias = parseSliceName(name);
  if (!alias || alias->whole != disk->bsdName) return std::nullopt;
  return Medium{*std::move(disk), alias->number};
}

bool isMedium(const RegistryNode& node, uint32_t slice) {
  return node.className == "IOMedia" && node.properties.integer("Partition ID").value_or(0) == int64_t{slice};
}

}  // namespace

KernReturn LinuxIORegistry::masterPort(MasterPort& port) {
  port = kPort;
  return kKernSuccess;
}

std::string LinuxIORegistry::bsdNameFor(const std::string& device) {
  const std::optional<DeviceLocation> location = locateDevice(device);
  const std::optional<std::string> image = location && location->isImage ? bsdNameOf(*location) : std::nullopt;
  return image ? *image : IORegistry::bsdNameFor(device);
}

KernReturn LinuxIORegistry::createIterator(MasterPort, const std::string& plane,
                                           std::shared_ptr<RegistryIterator>& iterator) {
  if (!isRegistryPlane(plane)) return kKernFailure;
  iterator = makeRegistryIterator([root = root_] {
    std::shared_ptr<const RegistryTree> tree = wholeTree(root);
    std::vector<size_t> entries(tree->size());
    std::iota(entries.begin(), entries.end(), size_t{0});
    return RegistrySelection{std::move(tree), std::move(entries)};
  });
  return kKernSuccess;
}

std::shared_ptr<RegistryEntry> LinuxIORegistry::mediumEntry(const DiskFacts& disk, uint32_t slice) const {
  RegistryTree tree = machineTree(root_);
  addDisk(disk, tree);
  const auto medium =
      std::find_if(tree.begin(), tree.end(), [&](const RegistryNode& node) { return isMedium(node, slice); });
  if (medium == tree.end()) return nullptr;
  const auto place = static_cast<size_t>(medium - tree.begin());
  return makeRegistryEntry(std::make_shared<const RegistryTree>(std::move(tree)), place);
}

KernReturn LinuxIORegistry::matchingServices(MasterPort, const RegistryMatching& matching,
                                             std::shared_ptr<RegistryIterator>& iterator) {
  std::optional<Medium> medium;
  std::shared_ptr<const RegistryTree> tree;
  if (!matching.bsdName) {
    tree = wholeTree(root_);
  } else {
    RegistryTree ofDisk = machineTree(root_);
    medium = mediumCalled(root_, *matching.bsdName);
    if (medium) addDisk(medium->disk, ofDisk);
    tree = std::make_shared<const RegistryTree>(std::move(ofDisk));
  }
  std::vector<size_t> entries;
  for (size_t i = 0; i < tree->size(); ++i) {
    const RegistryNode& node = (*tree)[i];
    if (matching.bsdName && !(medium && isMedium(node, medium->slice))) continue;
    if (meetsConditions(node, matching)) entries.push_back(i);
  }
  iterator = makeRegistryIterator([found = RegistrySelection{std::move(tree), std::move(entries)}] { return found; });
  return kKernSuccess;
}

}  // namespace vorlix
