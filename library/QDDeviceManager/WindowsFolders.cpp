// SPDX-License-Identifier: Apache-2.0
//
// The places of Windows, its installer and its boot files on a volume.
#include <Vorlix/WindowsFolders.h>

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/Paths.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>

#include <string_view>
#include <utility>

using vorlix::appendPathComponent;

namespace {

constexpr const char* kBootPartitionName = "System Reserved";

// Returns the path of the first entry of a folder with that name in any letter case.
std::optional<std::string> entryOf(const std::optional<std::string>& folder, std::string_view name) {
  if (!folder) return std::nullopt;
  const auto entries = vorlix::platform().files->namesIn(*folder);
  if (!entries) return std::nullopt;
  const std::vector<std::string> found = vorlix::spellingsOf(*entries, name);
  if (found.empty()) return std::nullopt;
  return appendPathComponent(*folder, found.front());
}

}  // namespace

namespace vorlix {

std::string pathOnVolume(const QDVolume& volume, std::string folder, std::initializer_list<const char*> names) {
  if (isCaseBlind(volume.fileSystemType().value_or(""))) return pathInAnySpelling(std::move(folder), names);
  for (const char* const name : names) folder = appendPathComponent(folder, name);
  return folder;
}

BootFiles bootFilesOf(const QDVolume& volume) {
  const auto root = volume.filePath();
  if (!root) return {};
  return {pathOnVolume(volume, *root, {"BOOT"}), pathOnVolume(volume, *root, {"bootmgr"})};
}

bool isBootPartition(const QDVolume& volume) {
  if (volume.diskName() != kBootPartitionName || volume.hasWindows()) return false;
  return platform().files->kindOf(bootFilesOf(volume).folder) == FileKind::folder;
}

}  // namespace vorlix

std::optional<std::string> QDDeviceManager::windowsFolderFromVolume(const std::optional<std::string>& path) {
  return entryOf(path, "windows");
}

std::optional<std::string> QDDeviceManager::system32FolderFromVolume(const std::optional<std::string>& path) {
  return entryOf(windowsFolderFromVolume(path), "system32");
}

std::optional<std::string> QDDeviceManager::windowsSourcesFolderFromVolume(const std::optional<std::string>& path) {
  return entryOf(path, "sources");
}

std::optional<std::string> QDDeviceManager::bootWIMFileFromVolume(const std::optional<std::string>& path) {
  return entryOf(windowsSourcesFolderFromVolume(path), "boot.wim");
}

vorlix::Dictionary QDDeviceManager::splitBootInfo(const std::string& device,
                                                  const std::vector<std::shared_ptr<QDVolume>>& fullList) {
  const auto target = diskFromSlice(device);
  vorlix::BootFiles files;
  for (const auto& volume : fullList) {
    files = vorlix::bootFilesOf(*volume);
    const auto volumeDevice = volume->device();
    const auto disk = volumeDevice ? diskFromSlice(*volumeDevice) : std::nullopt;
    if (disk && disk == target && vorlix::isBootPartition(*volume)) break;
  }
  return vorlix::bootInfo(files);
}
