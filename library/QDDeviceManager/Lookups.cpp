// SPDX-License-Identifier: Apache-2.0
//
// Finding volumes in the list.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/DiskArbitration.h>

#include "Messages.h"

namespace {

template <typename Matches>
std::shared_ptr<QDVolume> firstVolume(QDDeviceManager& manager, Matches matches) {
  for (const auto& volume : manager.attachedDisksShowingWindowsOnly(false)) {
    if (matches(*volume)) return volume;
  }
  return nullptr;
}

bool isInternal(const vorlix::Dictionary& description) {
  return description.boolean(vorlix::kDescriptionDeviceInternal).value_or(false);
}

// NTFS under the name of any driver, and FAT under the system's name.
bool isWindowsKind(const vorlix::Dictionary& description) {
  const auto kind = description.text(vorlix::kDescriptionVolumeKind);
  return kind && (vorlix::containsInAnyCase(*kind, "ntfs") || *kind == "msdos");
}

}  // namespace

std::shared_ptr<QDVolume> QDDeviceManager::volumeWithMediaUUID(const vorlix::UUID& uuid,
                                                               const vorlix::URL& deviceNode) {
  return firstVolume(*this, [&](const QDVolume& volume) {
    return volume.mediaUUID() == uuid && volume.device() == deviceNode.path();
  });
}

std::shared_ptr<QDVolume> QDDeviceManager::volumeWithMediaUUID(const vorlix::UUID& uuid) {
  return firstVolume(*this, [&](const QDVolume& volume) { return volume.mediaUUID() == uuid; });
}

std::shared_ptr<QDVolume> QDDeviceManager::volumeForLabel(const std::string& label) {
  return firstVolume(*this, [&](const QDVolume& volume) { return volume.diskName() == label; });
}

std::shared_ptr<QDVolume> QDDeviceManager::volumeForNode(const std::string& node) {
  return firstVolume(*this, [&](const QDVolume& volume) { return volume.device() == node; });
}

int32_t QDDeviceManager::numberOfMSPartitions() {
  int32_t count = 0;
  for (const auto& volume : attachedDisksShowingWindowsOnly(false)) {
    const auto description = diskInfo(volume->device().value_or(""));
    if (!description || !isInternal(*description)) continue;
    const auto type = volume->fileSystemType();
    if (type == "ntfs" || type == "msdos") ++count;
  }
  return count;
}

std::shared_ptr<QDVolume> QDDeviceManager::builtInBootcampPartition() {
  std::shared_ptr<QDVolume> candidate;
  unsigned count = 0;
  for (const auto& volume : attachedDisksShowingWindowsOnly(false)) {
    // The device already begins with "/dev/"; the lookup has it twice.
    const std::string node = "/dev/" + volume->device().value_or("");
    const auto description = diskInfoForDeviceNodeAtURL(vorlix::URL::fileURLWithPath(node));
    if (!description || !isInternal(*description) || !isWindowsKind(*description)) continue;
    if (description->text(vorlix::kDescriptionVolumeName) == "EFI") continue;
    ++count;
    candidate = volume;
  }
  if (count < 2) return candidate;
  vorlix::tellDelegate("More than 1 partition found!");
  return nullptr;
}

std::optional<std::string> QDDeviceManager::pathForDevice(const std::string& device) {
  const auto volume = init()->volumeForNode(device);
  const auto path = volume ? volume->filePath() : std::nullopt;
  if (!path) vorlix::tellDelegate("COULD NOT FIND MOUNT!");
  return path;
}
