// SPDX-License-Identifier: Apache-2.0
#include "SystemDisks.h"

#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <utility>

namespace vorlix::tool {
namespace {

bool startsWithOneOf(const std::string& name, std::initializer_list<const char*> starts) {
  return std::any_of(starts.begin(), starts.end(), [&](const char* start) { return name.starts_with(start); });
}

template <typename Type>
std::optional<Type> valueOf(RegistryEntry& entry, const char* key) {
  const std::optional<Value> value = entry.property(key);
  const Type* const found = value ? std::get_if<Type>(&*value) : nullptr;
  return found != nullptr ? std::optional<Type>(*found) : std::nullopt;
}

std::shared_ptr<RegistryEntry> above(RegistryEntry& entry) {
  std::shared_ptr<RegistryEntry> parent;
  return entry.parent(kServicePlane, parent) == kKernSuccess ? parent : nullptr;
}

// Vendor and product, as far as a device above the medium tells.
std::optional<std::string> modelOf(RegistryEntry& medium) {
  for (auto entry = above(medium); entry; entry = above(*entry)) {
    const auto facts = valueOf<std::shared_ptr<const Dictionary>>(*entry, "Device Characteristics");
    if (!facts || !*facts) continue;
    const std::string vendor = (*facts)->text("Vendor Name").value_or("");
    const std::string product = (*facts)->text("Product Name").value_or("");
    const std::string text = vendor + (vendor.empty() || product.empty() ? "" : " ") + product;
    return text.empty() ? std::nullopt : std::optional<std::string>(text);
  }
  return std::nullopt;
}

// The name of the disk that a slice is on.
std::string diskAround(RegistryEntry& slice) {
  for (auto entry = above(slice); entry; entry = above(*entry)) {
    if (valueOf<bool>(*entry, "Whole") == true) return valueOf<std::string>(*entry, "BSD Name").value_or("");
  }
  return "";
}

void addSlice(const SystemMedium& slice, std::vector<SystemDisk>& disks) {
  const std::string around = diskAround(*slice.entry);
  const auto disk =
      std::find_if(disks.begin(), disks.end(), [&](const SystemDisk& item) { return item.name == around; });
  const int64_t number = valueOf<int64_t>(*slice.entry, "Partition ID").value_or(0);
  if (disk == disks.end() || number <= 0) return;
  disk->slices.push_back({static_cast<uint32_t>(number), slice.size, slice.content});
}

}  // namespace

bool SystemDisk::isListed() const {
  if (startsWithOneOf(name, {"ram", "zram"})) return false;
  const bool hasTable = !content.empty() || !slices.empty();
  return hasTable || !startsWithOneOf(name, {"loop", "dm-", "md", "nbd"});
}

std::optional<std::string> SystemMedium::uuid() const {
  return valueOf<std::string>(*entry, "UUID");
}

std::vector<SystemMedium> systemMedia() {
  RegistryMatching matching;
  matching.className = "IOMedia";
  MasterPort port = 0;
  IORegistry& registry = *platform().ioRegistry;
  registry.masterPort(port);
  std::shared_ptr<RegistryIterator> entries;
  if (registry.matchingServices(port, matching, entries) != kKernSuccess || !entries) return {};
  std::vector<SystemMedium> media;
  while (auto entry = entries->next()) {
    SystemMedium medium;
    medium.name = valueOf<std::string>(*entry, "BSD Name").value_or("");
    medium.isWhole = valueOf<bool>(*entry, "Whole").value_or(false);
    medium.size = static_cast<uint64_t>(std::max<int64_t>(valueOf<int64_t>(*entry, "Size").value_or(0), 0));
    medium.content = valueOf<std::string>(*entry, "Content").value_or("");
    medium.entry = std::move(entry);
    media.push_back(std::move(medium));
  }
  return media;
}

std::vector<SystemDisk> systemDisks() {
  const std::vector<SystemMedium> media = systemMedia();
  std::vector<SystemDisk> disks;
  for (const SystemMedium& medium : media) {
    if (!medium.isWhole) continue;
    const auto isWritable = valueOf<bool>(*medium.entry, "Writable");
    disks.push_back({medium.name, medium.size, medium.content, modelOf(*medium.entry), isWritable, {}});
  }
  for (const SystemMedium& medium : media) {
    if (!medium.isWhole) addSlice(medium, disks);
  }
  for (SystemDisk& disk : disks) {
    std::sort(disk.slices.begin(), disk.slices.end(),
              [](const SystemSlice& left, const SystemSlice& right) { return left.number < right.number; });
  }
  return disks;
}

}  // namespace vorlix::tool
