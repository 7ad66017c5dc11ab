// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/CompanionProgram.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Text.h"
#include "VolumeView.h"

namespace vorlix::tool {
namespace {

// Of a volume that is not mounted: files that are larger are not what their names say.
constexpr size_t kLargestHive = size_t{512} << 20;
constexpr size_t kLargestLog = size_t{256} << 20;

struct Row {
  const char* key;
  const char* title;
};

constexpr Row kRows[] = {
    {"product", "Product"},      {"edition", "Edition"},    {"currentBuildNumber", "Build"},
    {"buildLabEx", "Build lab"}, {"bootenv", "Started by"},
};

// Shortens the library's text to the name of the start environment. The setup log names the environment several times,
// and the library returns all the text from the first name on.
std::string environmentText(const std::string& found) {
  for (const char* name : {"BIOS", "EFI"}) {
    if (found.starts_with(name)) return name;
  }
  return found;
}

// Windows 11 has the product name "Windows 10" in its registry; the build number identifies it.
bool isWindows11(const Dictionary& version) {
  constexpr int kFirstBuild = 22000;
  const std::string build = version.text("currentBuildNumber").value_or("");
  int number = 0;
  const auto parsed = std::from_chars(build.data(), build.data() + build.size(), number);
  return version.text("product") == "Windows 10" && parsed.ec == std::errc() && number >= kFirstBuild;
}

// Refuses an unreadable folder, which the library would take for one without Windows.
void requireReadable(const std::string& folder) {
  std::error_code reason;
  if (!std::filesystem::is_directory(folder, reason) && !reason)
    return;  // not a folder; later checks find nothing in it
  if (access(folder.c_str(), R_OK | X_OK) != 0) throw Failure(folder, std::strerror(errno), "nothing was read");
}

int showWindows(const std::string& volume, bool json) {
  VolumeView view(volume, "nothing was read");
  const std::string& folder = view.folder();
  requireReadable(folder);
  view.needName({"Windows", "System32"});
  view.needName({"sources", "boot.wim"});
  view.needContent({"Windows", "System32", "config", "SOFTWARE"}, kLargestHive);
  view.needContent({"Windows", "Panther", "setupact.log"}, kLargestLog);
  if (const auto windows = QDDeviceManager::windowsFolderFromVolume(folder)) requireReadable(*windows);
  if (!QDDeviceManager::system32FolderFromVolume(folder)) {
    const bool isInstaller = QDDeviceManager::bootWIMFileFromVolume(folder).has_value();
    complain(volume + ": " + (isInstaller ? "no installed Windows, only its installer" : "no Windows"));
    if (json) std::printf("null\n");
    return kChangeNeeded;
  }
  const auto record = QDVolume::init();
  record->setFilePath(folder);
  record->setFileSystemType(view.fileSystem());
  Dictionary version;
  {
    const LibraryLog log;
    version = QDDeviceManager::sharedDeviceManager()->versionOfWindowsFromVolume(record);
  }
  if (json) {
    Json object = Json::object();
    object.add("version", kJsonVersion);
    for (const Row& row : kRows) {
      object.add(row.key, knownText(version.text(row.key).value_or("")));
    }
    object.print();
  } else {
    for (const Row& row : kRows) {
      std::string value = version.text(row.key).value_or("");
      if (row.key == std::string_view("bootenv")) value = environmentText(value);
      if (!value.empty()) std::printf("%-10s %s\n", row.title, printable(value).c_str());
    }
    if (isWindows11(version)) std::printf("%-10s Windows 11, by its build number; the registry says 10\n", "Release");
  }
  if (!version.text("product").value_or("").empty()) return kDone;
  const bool hasTool = companionProgram("registry_lookup").has_value();
  throw Failure(volume, hasTool ? "its registry has no product name" : "registry_lookup is not installed");
}

}  // namespace

void addWindowsCommand(Command& top, int& status) {
  const auto volume = std::make_shared<std::string>();
  const auto json = std::make_shared<bool>(false);
  Command windows = top.addCommand("windows", "Report which Windows a volume holds");
  windows.addOption("VOLUME", *volume, "Folder where the volume is mounted, or its device")
      .completes(ValueKind::volume)
      .required();
  windows.addFlag("--json", *json, "Print JSON");
  windows.setFooter(
      "A FAT or NTFS volume need not be mounted (Linux): its files are read from its bytes. Nothing is written.\n"
      "Exit status: 0 success, 1 no Windows, 2 error.");
  windows.setExamples({"vorlix windows mac.imgs3", "vorlix windows /mnt/windows --json"});
  windows.setAction([volume, json, &status] { status = showWindows(*volume, *json); });
}

}  // namespace vorlix::tool
