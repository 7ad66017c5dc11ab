// SPDX-License-Identifier: Apache-2.0
//
// Partitions in device elements; docs/boot-store.md has the table of bytes.
#include <Vorlix/BootStore.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>

namespace vorlix {
namespace {

// A descriptor of a partition of a disk, from its first byte on. It stands behind the 16 bytes of an element's options,
// or inside the descriptor of a file or RAM disk.
constexpr size_t kDescriptorKind = 0x00;
constexpr size_t kDescriptorLength = 0x08;
constexpr size_t kDescriptorPartition = 0x10;
constexpr size_t kDescriptorDiskKind = 0x20;
constexpr size_t kDescriptorScheme = 0x24;
constexpr size_t kDescriptorDisk = 0x28;
constexpr size_t kPartitionDescriptor = 0x48;

constexpr size_t kOptions = 16;
constexpr uint32_t kKindPartition = 6;
constexpr uint32_t kDiskKindHardDisk = 0;
constexpr uint32_t kSchemeGPT = 0;
constexpr uint32_t kSchemeMBR = 1;

using StoreSpan = std::span<const uint8_t>;

uint32_t wordOf(StoreSpan descriptor, size_t offset) {
  return littleEndian32(descriptor.data() + offset);
}

// A partition of a virtual disk has another kind of disk, and a greater length, since the disk's file follows.
bool isPartition(StoreSpan descriptor) {
  return wordOf(descriptor, kDescriptorKind) == kKindPartition &&
         wordOf(descriptor, kDescriptorLength) == kPartitionDescriptor &&
         wordOf(descriptor, kDescriptorDiskKind) == kDiskKindHardDisk &&
         wordOf(descriptor, kDescriptorScheme) <= kSchemeMBR;
}

// Returns the offsets of the descriptors. All fields before a nested descriptor are multiples of four bytes; the text
// of a path comes behind it.
std::vector<size_t> descriptorsIn(StoreSpan element) {
  std::vector<size_t> places;
  for (size_t at = kOptions; at + kPartitionDescriptor <= element.size();) {
    const bool isFound = isPartition(element.subspan(at, kPartitionDescriptor));
    if (isFound) places.push_back(at);
    at += isFound ? kPartitionDescriptor : sizeof(uint32_t);
  }
  return places;
}

void putPartition(std::vector<uint8_t>& element, size_t at, const StorePartition& partition) {
  uint8_t* const descriptor = element.data() + at;
  std::copy(partition.partition.begin(), partition.partition.end(), descriptor + kDescriptorPartition);
  putLittleEndian(descriptor + kDescriptorScheme, 4, partition.isMBR ? kSchemeMBR : kSchemeGPT);
  std::copy(partition.disk.begin(), partition.disk.end(), descriptor + kDescriptorDisk);
}

}  // namespace

StorePartition mbrStorePartition(uint64_t offset, uint32_t signature) {
  StorePartition result;
  result.isMBR = true;
  putLittleEndian(result.partition.data(), 8, offset);
  putLittleEndian(result.disk.data(), 4, signature);
  return result;
}

std::vector<uint8_t> partitionElement(const StorePartition& partition) {
  std::vector<uint8_t> element(kOptions + kPartitionDescriptor);
  putLittleEndian(element.data() + kOptions + kDescriptorKind, 4, kKindPartition);
  putLittleEndian(element.data() + kOptions + kDescriptorLength, 4, kPartitionDescriptor);
  putPartition(element, kOptions, partition);
  return element;
}

std::vector<StorePartition> partitionsOf(StoreSpan element) {
  std::vector<StorePartition> partitions;
  for (const size_t at : descriptorsIn(element)) {
    const StoreSpan descriptor = element.subspan(at, kPartitionDescriptor);
    StorePartition partition;
    partition.isMBR = wordOf(descriptor, kDescriptorScheme) == kSchemeMBR;
    std::copy_n(descriptor.begin() + kDescriptorPartition, partition.partition.size(), partition.partition.begin());
    std::copy_n(descriptor.begin() + kDescriptorDisk, partition.disk.size(), partition.disk.begin());
    partitions.push_back(partition);
  }
  return partitions;
}

std::vector<uint8_t> elementWithPartition(StoreSpan element, const StorePartition& partition) {
  std::vector<uint8_t> result(element.begin(), element.end());
  for (const size_t at : descriptorsIn(element)) putPartition(result, at, partition);
  return result;
}

StorePlace storePlaceOf(uint32_t objectType) {
  switch (objectType) {
    case kStoreFirmwareManager:
    case kStoreBootManager:
    case kStoreMemoryTester:
    case kStoreOldLoader:
    case kStoreBootSector:
      return StorePlace::systemPartition;
    default:
      return StorePlace::windowsVolume;
  }
}

std::string storeObjectKind(uint32_t objectType) {
  switch (objectType) {
    case kStoreFirmwareManager:
      return "firmware manager";
    case kStoreBootManager:
      return "boot manager";
    case kStoreLoader:
      return "loader";
    case kStoreResume:
      return "resume";
    case kStoreMemoryTester:
      return "memory tester";
    case kStoreOldLoader:
      return "old loader";
    case kStoreBootSector:
      return "boot sector";
    default:
      return objectType >> 28U == 3 ? "device options" : "object";
  }
}

std::optional<std::string> setStorePartitions(StoreSpan store, const std::vector<StoreObject>& objects,
                                              const StoreTargets& targets, StoreWithPartitions& result) {
  result.devices.clear();
  result.store.assign(store.begin(), store.end());
  std::vector<std::pair<uint64_t, uint64_t>> taken;  // starts and ends of the elements that were set
  for (const StoreObject& object : objects) {
    for (const StoreElement& element : object.elements) {
      const std::vector<StorePartition> partitions =
          element.isDevice() ? partitionsOf(element.data) : std::vector<StorePartition>();
      if (partitions.empty()) continue;
      const uint64_t size = element.data.size();
      const bool isInside =
          element.offset != 0 && element.offset <= store.size() && size <= store.size() - element.offset;
      if (!isInside || !std::equal(element.data.begin(), element.data.end(),
                                   store.begin() + static_cast<std::ptrdiff_t>(element.offset))) {
        return "an element of " + object.identifier + " is not in one piece in the store";
      }
      for (const auto& [start, end] : taken) {
        if (element.offset < end && start < element.offset + size) {
          return "an element of " + object.identifier + " shares its bytes with another one";
        }
      }
      taken.emplace_back(element.offset, element.offset + size);
      const StorePlace place = storePlaceOf(object.type);
      const std::vector<uint8_t> changed = elementWithPartition(element.data, targets.at(place));
      std::copy(changed.begin(), changed.end(), result.store.begin() + static_cast<std::ptrdiff_t>(element.offset));
      result.devices.push_back({object.identifier, object.type, element.type, place, partitions});
    }
  }
  if (result.devices.empty()) return "no device element names a partition";
  return std::nullopt;
}

}  // namespace vorlix
