// SPDX-License-Identifier: Apache-2.0
#include "WindowsOnVolume.h"

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

#include "Failure.h"
#include "LibraryLog.h"

namespace vorlix::tool {
namespace {

// Of a volume that is not mounted: files that are larger are not what their names say.
constexpr size_t kLargestHive = size_t{512} << 20;
constexpr size_t kLargestLog = size_t{256} << 20;

// Refuses an unreadable folder, which the library would take for one without Windows.
void requireReadable(const std::string& folder) {
  std::error_code reason;
  if (!std::filesystem::is_directory(folder, reason) && !reason)
    return;  // not a folder; later checks find nothing in it
  if (access(folder.c_str(), R_OK | X_OK) != 0) throw Failure::ofErrno(folder, errno, "nothing was read");
}

}  // namespace

WindowsIs findWindows(VolumeView& view) {
  const std::string& folder = view.folder();
  requireReadable(folder);
  view.needName({"Windows", "System32"});
  view.needName({"sources", "boot.wim"});
  if (const auto windows = QDDeviceManager::windowsFolderFromVolume(folder)) requireReadable(*windows);
  if (QDDeviceManager::system32FolderFromVolume(folder)) return WindowsIs::installed;
  return QDDeviceManager::bootWIMFileFromVolume(folder) ? WindowsIs::installer : WindowsIs::absent;
}

Dictionary versionOfWindows(VolumeView& view, bool withSetupLog) {
  view.needContent({"Windows", "System32", "config", "SOFTWARE"}, kLargestHive);
  if (withSetupLog) view.needContent({"Windows", "Panther", "setupact.log"}, kLargestLog);
  const auto record = QDVolume::init();
  record->setFilePath(view.folder());
  record->setFileSystemType(view.fileSystem());
  const LibraryLog log;
  return QDDeviceManager::sharedDeviceManager()->versionOfWindowsFromVolume(record);
}

bool isWindows11(const Dictionary& version) {
  constexpr int kFirstBuild = 22000;
  const std::string build = version.text("currentBuildNumber").value_or("");
  int number = 0;
  const auto parsed = std::from_chars(build.data(), build.data() + build.size(), number);
  return version.text("product") == "Windows 10" && parsed.ec == std::errc() && number >= kFirstBuild;
}

}  // namespace vorlix::tool
