// SPDX-License-Identifier: Apache-2.0
//
// The list of mounted volumes.
#include <Vorlix/NSNumber+HumanReadable.h>
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>

#include <array>
#include <map>

#include <Vorlix/WindowsFolders.h>

using vorlix::Dictionary;
using vorlix::FileKind;
using vorlix::MountedVolume;
using vorlix::Number;
using vorlix::URL;

namespace {

// These are searched for in the kind in lower case, so the last one is never found. FAT volumes are found by "msdos".
constexpr std::array<const char*, 4> kListedKinds = {"ntfs", "msdos", "exfat", "MS-DOS"};

// Drivers from other vendors call their sources ntfs://disk3s2/Name.
constexpr const char* kForeignNTFS = "ntfs:/";
constexpr size_t kForeignDevicePart = 2;

// The device of a volume and its file system.
struct Source {
  std::string device;
  std::optional<std::string> fileSystemType;
};

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts = {""};
  for (const char letter : text) {
    if (letter == separator) {
      parts.emplace_back();
    } else {
      parts.back() += letter;
    }
  }
  return parts;
}

Source sourceOf(const MountedVolume& mounted, std::optional<std::string> fileSystemType) {
  if (mounted.mountedFrom.starts_with(kForeignNTFS)) {
    const std::vector<std::string> parts = split(mounted.mountedFrom, '/');
    if (parts.size() > kForeignDevicePart) return {"/dev/" + parts[kForeignDevicePart], "ntfs"};
  }
  return {mounted.mountedFrom, std::move(fileSystemType)};
}

std::optional<std::string> textIn(const std::optional<Dictionary>& description, const char* key) {
  return description ? description->text(key) : std::nullopt;
}

std::optional<vorlix::UUID> uuidIn(const std::optional<Dictionary>& description, const char* key) {
  return description ? description->uuid(key) : std::nullopt;
}

std::optional<Number> numberIn(const std::optional<Dictionary>& description, const char* key) {
  const auto value = description ? description->integer(key) : std::nullopt;
  if (!value) return std::nullopt;
  return Number::numberWithLongLong(*value);
}

// A volume of unknown kind is listed.
bool isListedKind(const std::optional<std::string>& kind) {
  if (!kind) return true;
  const std::string lower = vorlix::lowerCase(*kind);
  for (const char* listed : kListedKinds) {
    if (lower.find(listed) != std::string::npos) return true;
  }
  return false;
}

bool isFolder(const std::optional<std::string>& path) {
  return path && vorlix::platform().files->kindOf(*path) == FileKind::folder;
}

// Everything except folders counts, even a pipe.
bool isFile(const std::optional<std::string>& path) {
  const auto kind = path ? vorlix::platform().files->kindOf(*path) : std::nullopt;
  return kind && kind != FileKind::folder;
}

bool holdsWindows(const std::optional<std::string>& root) {
  const bool isInstalled = isFolder(QDDeviceManager::windowsFolderFromVolume(root)) &&
                           isFolder(QDDeviceManager::system32FolderFromVolume(root));
  return isInstalled || isFile(QDDeviceManager::bootWIMFileFromVolume(root));
}

void setSizes(QDVolume& volume, const MountedVolume& mounted) {
  const auto total = static_cast<int64_t>(mounted.totalSize.value_or(0));
  const auto free = static_cast<int64_t>(mounted.freeSpace.value_or(0));
  if (mounted.totalSize) volume.setHumanSize(stringWithHumanReadableInt(Number::numberWithLongLong(total)));
  volume.setTotalSize(std::to_string(total));
  volume.setFreeSpace(std::to_string(free));
}

void setFromDescription(QDVolume& volume, const std::optional<Dictionary>& description) {
  volume.setMediaUUID(uuidIn(description, vorlix::kDescriptionMediaUUID));
  const auto content = textIn(description, vorlix::kDescriptionMediaContent);
  if (content) volume.setMediaContentUUID(vorlix::UUID::fromText(*content));
  const auto volumeUUID = uuidIn(description, vorlix::kDescriptionVolumeUUID);
  volume.setVolumeUUID(volumeUUID ? *volumeUUID : vorlix::UUID::random());
  if (const auto size = numberIn(description, vorlix::kDescriptionMediaSize)) {
    volume.setMediaSize(stringWithHumanReadableInt(*size));
    volume.setMediaSizeRaw(*size);
  }
  if (const auto size = numberIn(description, vorlix::kDescriptionMediaBlockSize)) volume.setMediaBlockSize(*size);
}

// Does the same as splitBootInfo(), for all volumes of one listing. The result is the same for all volumes of a disk,
// so each volume is examined only once.
class BootPartitions {
 public:
  explicit BootPartitions(const std::vector<std::shared_ptr<QDVolume>>& fullList) {
    for (const auto& volume : fullList) {
      last_ = vorlix::bootFilesOf(*volume);
      const auto disk = volume->drivePath();
      if (disk && vorlix::isBootPartition(*volume)) byDisk_.try_emplace(*disk, last_);
    }
  }

  vorlix::BootFiles filesFor(const std::optional<std::string>& disk) const {
    const auto found = disk ? byDisk_.find(*disk) : byDisk_.end();
    return found == byDisk_.end() ? last_ : found->second;
  }

 private:
  std::map<std::string, vorlix::BootFiles> byDisk_;  // by path of the whole disk
  vorlix::BootFiles last_;
};

bool hasBootItem(const QDVolume& volume) {
  return vorlix::platform().files->kindOf(vorlix::bootFilesOf(volume).folder).has_value();
}

}  // namespace

std::vector<std::shared_ptr<QDVolume>> QDDeviceManager::attachedDisks() {
  return attachedDisksShowingWindowsOnly(false, true);
}

std::vector<std::shared_ptr<QDVolume>> QDDeviceManager::attachedDisksShowingWindowsOnly(bool windowsOnly) {
  return attachedDisksShowingWindowsOnly(windowsOnly, false);
}

std::vector<std::shared_ptr<QDVolume>> QDDeviceManager::attachedDisksShowingWindowsOnly(bool windowsOnly,
                                                                                        bool showAllDisks) {
  std::vector<std::shared_ptr<QDVolume>> result;
  std::vector<std::shared_ptr<QDVolume>> fullList;
  for (const MountedVolume& mounted : vorlix::platform().mountedVolumes->volumes()) {
    if (!mounted.mountPath) continue;
    const Source source = sourceOf(mounted, fileSystemTypeAtPath(*mounted.mountPath));
    const auto wholeDisk = diskFromSlice(source.device);
    if (!wholeDisk) continue;
    const auto description = diskInfoForDeviceNodeAtURL(URL::fileURLWithPath(source.device));
    if (!showAllDisks && !isListedKind(textIn(description, vorlix::kDescriptionVolumeKind))) continue;

    const auto volume = QDVolume::init();
    volume->setFilePath(mounted.mountPath);
    volume->setDiskName(mounted.name);
    volume->setDevice(source.device);
    volume->setDrivePath(wholeDisk);
    volume->setFileSystemType(source.fileSystemType);
    setSizes(*volume, mounted);
    volume->setHasWindows(holdsWindows(mounted.mountPath));
    setFromDescription(*volume, description);
    volume->setVolumeType("disk");
    if (!windowsOnly || volume->hasWindows()) result.push_back(volume);
    fullList.push_back(volume);
  }

  const BootPartitions partitions(fullList);
  for (const auto& volume : result) {
    if (!volume->hasWindows() || hasBootItem(*volume)) continue;
    const vorlix::BootFiles files = partitions.filesFor(volume->drivePath());
    volume->setBootResourcePath(files.folder);
    volume->setBootMgrPath(files.manager);
  }
  return result;
}
