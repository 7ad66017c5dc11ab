// SPDX-License-Identifier: Apache-2.0
#include "DiskDescription.h"

#include <Vorlix/platform/DiskArbitration.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "DeviceFacts.h"
#include "DiskFacts.h"
#include "IORegistry.h"
#include "ImageDiskFacts.h"
#include "KernelDisks.h"
#include "Mounting.h"
#include "PartitionProbe.h"
#include "Sysfs.h"

namespace vorlix {
namespace {

template <typename Type>
void setIfKnown(Dictionary& description, const char* key, const std::optional<Type>& value) {
  if (value) description.set(key, *value);
}

int64_t asInteger(uint64_t number) {
  return static_cast<int64_t>(number);
}

std::optional<DiskFacts> diskFactsOf(const DeviceLocation& location) {
  if (location.isImage) return imageDiskFacts("", location.whole);
  const std::optional<std::string> name = bsdNameOf({location.whole, location.whole, 0, false, ""});
  return name ? kernelDiskOf("", *name) : std::nullopt;
}

void describeDrive(const DeviceLocation& location, const std::optional<DiskFacts>& disk, Dictionary& description) {
  const std::optional<bool> isInternal = isInternalDevice(location);
  setIfKnown(description, kDescriptionDeviceInternal, isInternal);
  if (disk && !location.isImage) setIfKnown(description, kDescriptionDeviceUnit, unitOfKernelName(disk->bsdName));
  std::optional<bool> isRemovable;
  if (location.isImage) {
    isRemovable = true;  // like a disk in its own drive
  } else if (disk) {
    isRemovable = disk->removable;
  }
  setIfKnown(description, kDescriptionMediaRemovable, isRemovable);
  // An external disk counts as ejectable even if its medium cannot be removed from it.
  const bool isExternal = isInternal == false;
  if (isRemovable || isExternal) {
    description.set(kDescriptionMediaEjectable, isExternal || isRemovable.value_or(false));
  }
  description.set(kDescriptionMediaWritable, !isReadOnlyMedium(location));
}

void describeMedium(const DeviceLocation& location, const std::optional<DiskFacts>& disk, Dictionary& description) {
  if (!disk) return;
  if (location.slice == 0) {
    if (disk->hasMedium) description.set(kDescriptionMediaSize, asInteger(disk->size));
    if (!disk->content.empty()) description.set(kDescriptionMediaContent, disk->content);
    setIfKnown(description, kDescriptionMediaName, disk->product);
    return;
  }
  const auto slice = std::find_if(disk->slices.begin(), disk->slices.end(),
                                  [&](const SliceFacts& facts) { return facts.number == location.slice; });
  if (slice == disk->slices.end()) return;
  description.set(kDescriptionMediaSize, asInteger(slice->extent.size));
  if (!slice->content.empty()) description.set(kDescriptionMediaContent, slice->content);
  setIfKnown(description, kDescriptionMediaUUID, slice->uuid);
  const auto whole = openLocation({location.whole, location.whole, 0, location.isImage, location.imageName}, O_RDONLY);
  if (!whole) return;
  setIfKnown(description, kDescriptionMediaName,
             probePartitionName(whole->descriptor.get(), whole->blockSize, location.slice));
}

// In the registry, a medium is below its device, and a slice is below the partition table on the medium of its disk.
void describePaths(const DeviceLocation& location, const std::optional<DiskFacts>& disk, Dictionary& description) {
  std::shared_ptr<RegistryEntry> entry = disk ? LinuxIORegistry().mediumEntry(*disk, location.slice) : nullptr;
  if (!entry) return;
  std::string path;
  if (entry->path(kServicePlane, path) == kKernSuccess) description.set(kDescriptionMediaPath, path);
  for (int step = location.slice == 0 ? 1 : 3; step > 0; --step) {
    std::shared_ptr<RegistryEntry> above;
    if (entry->parent(kServicePlane, above) != kKernSuccess || !above) return;
    entry = above;
  }
  if (entry->path(kServicePlane, path) == kKernSuccess) description.set(kDescriptionDevicePath, path);
}

std::optional<uint32_t> blockSizeOf(const DeviceLocation& location, const std::optional<OpenedDevice>& device) {
  if (device) return device->blockSize;
  struct stat status = {};
  if (location.isImage || stat(location.node.c_str(), &status) != 0) return std::nullopt;
  return kernelBlockSize(status.st_rdev);
}

URL folderURL(const VolumePlace& place) {
  return URL::fileURLWithPath(place.path, true);
}

void describeVolume(const DeviceLocation& location, const std::optional<OpenedDevice>& device,
                    Dictionary& description) {
  const std::optional<VolumePlace> place = volumePlaceOf(location, device);
  if (place) description.set(kDescriptionVolumePath, folderURL(*place));
  const std::optional<ProbedVolume> facts = volumeFactsOf(location, device);
  std::optional<std::string> kind;
  if (facts) {
    kind = facts->kind;
    setIfKnown(description, kDescriptionVolumeName, facts->label);
    setIfKnown(description, kDescriptionVolumeUUID, facts->uuid);
  } else if (place) {
    kind = volumeKindOf(place->fileSystem);
  }
  setIfKnown(description, kDescriptionVolumeKind, kind);
  setIfKnown(description, kDescriptionVolumeType, kind);
  if (device || facts || place) description.set(kDescriptionVolumeMountable, facts || place);
}

}  // namespace

std::optional<ProbedVolume> volumeFactsOf(const DeviceLocation& location, const std::optional<OpenedDevice>& device) {
  if (device) return probeVolume(device->descriptor.get(), device->window);
  struct stat status = {};
  if (location.isImage || stat(location.node.c_str(), &status) != 0) return std::nullopt;
  return volumeInUdevRecord(readUdevRecord(deviceNumberText(status.st_rdev)));
}

std::optional<std::string> volumeTypeOf(const DeviceLocation& location) {
  const std::optional<OpenedDevice> device = openLocation(location, O_RDONLY);
  if (const std::optional<ProbedVolume> facts = volumeFactsOf(location, device)) return facts->kind;
  const std::optional<VolumePlace> place = volumePlaceOf(location, device);
  return place ? volumeKindOf(place->fileSystem) : std::nullopt;
}

std::optional<UUID> volumeUUIDOf(const DeviceLocation& location) {
  const std::optional<ProbedVolume> facts = volumeFactsOf(location, openLocation(location, O_RDONLY));
  return facts ? facts->uuid : std::nullopt;
}

std::optional<uint32_t> mediumBlockSize(const DeviceLocation& location) {
  return blockSizeOf(location, openLocation(location, O_RDONLY));
}

std::optional<URL> volumePathOf(const DeviceLocation& location) {
  const std::optional<VolumePlace> place = volumePlaceOf(location, openLocation(location, O_RDONLY));
  return place ? std::optional<URL>(folderURL(*place)) : std::nullopt;
}

Dictionary describeVolumeOf(const DeviceLocation& location) {
  Dictionary description;
  describeVolume(location, openLocation(location, O_RDONLY), description);
  return description;
}

Dictionary describeDisk(const DeviceLocation& location) {
  Dictionary description;
  setIfKnown(description, kDescriptionMediaBSDName, bsdNameOf(location));
  description.set(kDescriptionMediaWhole, location.slice == 0);
  const std::optional<DiskFacts> disk = diskFactsOf(location);
  describeDrive(location, disk, description);
  describeMedium(location, disk, description);
  describePaths(location, disk, description);
  const std::optional<OpenedDevice> device = openLocation(location, O_RDONLY);
  if (const auto size = blockSizeOf(location, device)) description.set(kDescriptionMediaBlockSize, int64_t{*size});
  describeVolume(location, device, description);
  return description;
}

}  // namespace vorlix
