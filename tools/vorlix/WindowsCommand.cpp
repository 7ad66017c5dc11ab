// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/CompanionProgram.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Json.h"
#include "Text.h"
#include "VolumeView.h"
#include "WindowsOnVolume.h"

namespace vorlix::tool {
namespace {

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

int showWindows(const std::string& volume, bool json) {
  VolumeView view(volume, "nothing was read");
  const WindowsIs windows = findWindows(view);
  if (windows != WindowsIs::installed) {
    const bool isInstaller = windows == WindowsIs::installer;
    complain(volume + ": " + (isInstaller ? "no installed Windows, only its installer" : "no Windows"));
    if (json) std::printf("null\n");
    return kChangeNeeded;
  }
  const Dictionary version = versionOfWindows(view, true);
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
