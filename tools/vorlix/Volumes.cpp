// SPDX-License-Identifier: Apache-2.0
#include "Volumes.h"

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/WindowsFolders.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "Arbitration.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

Json uuidJson(const std::optional<UUID>& uuid) {
  return uuid ? Json(uuid->text()) : Json();
}

Json numberJson(const std::optional<Number>& number) {
  return number ? Json(number->longLongValue()) : Json();
}

Json bytesJson(const std::optional<std::string>& decimal) {
  return decimal ? Json(std::stoll(*decimal)) : Json();
}

// The library puts "/dev/" before every disk's name, which for an image file is its path.
std::optional<std::string> diskText(const QDVolume& volume) {
  constexpr std::string_view kDevices = "/dev/";
  std::optional<std::string> disk = volume.drivePath();
  if (disk && disk->starts_with("/dev//")) disk->erase(0, kDevices.size());
  return disk;
}

// A volume without an identifier has another one in each listing; nobody could use that.
std::optional<UUID> lastingUUID(const QDVolume& volume) {
  const auto session = platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromBSDName(volume.device().value_or("")) : nullptr;
  return disk ? disk->volumeUUID() : std::nullopt;
}

bool isSamePlace(const std::string& left, const std::string& right) {
  std::error_code unreadable;
  return left == right || fs::equivalent(left, right, unreadable);
}

}  // namespace

QuietLibrary::QuietLibrary() {
  std::fflush(stdout);
  output_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  if (output_ < 0) return;
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere < 0) return;
  dup2(nowhere, STDOUT_FILENO);
  close(nowhere);
}

QuietLibrary::~QuietLibrary() {
  std::fflush(stdout);
  if (output_ < 0) return;
  dup2(output_, STDOUT_FILENO);
  close(output_);
}

std::string bootFilesText(const QDVolume& volume, const Volumes& all) {
  if (!volume.hasWindows()) return "";
  const std::optional<std::string> folder = volume.bootResourcePath();
  if (!folder) return "own";
  for (const auto& other : all) {
    const bool isBeside = other->drivePath() == volume.drivePath() && isBootPartition(*other);
    if (isBeside && bootFilesOf(*other).folder == *folder) return *folder;
  }
  return "none";
}

std::string windowsText(const QDVolume& volume) {
  if (!volume.hasWindows()) return "";
  return QDDeviceManager::system32FolderFromVolume(volume.filePath()) ? "installed" : "installer";
}

std::string volumeTable(const Volumes& volumes, const Volumes& all) {
  std::vector<std::vector<std::string>> rows = {
      {"Name", "Device", "Size", "Kind", "Windows", "Boot files", "Mounted at"}};
  const auto cell = [](const std::optional<std::string>& text) { return printable(text.value_or("")); };
  for (const auto& volume : volumes) {
    rows.push_back({cell(volume->diskName()), cell(volume->device()), cell(volume->humanSize()),
                    cell(volume->fileSystemType()), windowsText(*volume), cell(bootFilesText(*volume, all)),
                    cell(volume->filePath())});
  }
  return tableText(rows, "llrllll");
}

Json volumeJson(const QDVolume& volume, const Volumes& all) {
  return Json::object({
      {"name", volume.diskName()},
      {"device", volume.device()},
      {"disk", diskText(volume)},
      {"mountPath", volume.filePath()},
      {"kind", volume.fileSystemType()},
      {"totalSize", bytesJson(volume.totalSize())},
      {"freeSize", bytesJson(volume.freeSpace())},
      {"mediaSize", numberJson(volume.mediaSizeRaw())},
      {"blockSize", numberJson(volume.mediaBlockSize())},
      {"volumeUUID", uuidJson(lastingUUID(volume))},
      {"mediaUUID", uuidJson(volume.mediaUUID())},
      {"contentUUID", uuidJson(volume.mediaContentUUID())},
      {"windows", volume.hasWindows() ? Json(windowsText(volume)) : Json()},
      {"bootFiles", volume.hasWindows() ? Json(bootFilesText(volume, all)) : Json()},
  });
}

std::shared_ptr<QDVolume> mountedVolume(const std::string& deviceOrFolder, const Volumes& all) {
  for (const auto& volume : all) {
    if (volume->device() == deviceOrFolder || isSamePlace(volume->filePath().value_or(""), deviceOrFolder)) {
      return volume;
    }
  }
  // A folder that is no mount point is no device either. Of a device's many names disk arbitration knows the mount.
  std::error_code unreadable;
  if (fs::is_directory(deviceOrFolder, unreadable)) return nullptr;
  const std::optional<std::string> folder = mountPointOf(deviceOrFolder);
  if (!folder) return nullptr;
  for (const auto& volume : all) {
    if (isSamePlace(volume->filePath().value_or(""), *folder)) return volume;
  }
  return nullptr;
}

}  // namespace vorlix::tool
