// SPDX-License-Identifier: Apache-2.0
//
// The disks and what is on them, mounted or not, with what each needs to start.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "DiskSurvey.h"
#include "DisksView.h"
#include "Failure.h"

namespace vorlix::tool {
namespace {

struct DisksOptions {
  std::vector<std::string> names;
  bool json = false;
};

std::vector<SurveyedDisk> survey(const std::vector<std::string>& names) {
  // Looking at the system's disks opens each of them, which image files do not need.
  const bool needsSystem = names.empty() || !std::all_of(names.begin(), names.end(), isImageFile);
  const std::vector<SystemDisk> all = needsSystem ? systemDisks() : std::vector<SystemDisk>();
  std::vector<SurveyedDisk> disks;
  for (const std::string& name : names) disks.push_back(surveyNamedDisk(name, all));
  if (!names.empty()) return disks;
  for (const SystemDisk& disk : all) {
    if (disk.isListed()) disks.push_back(surveySystemDisk(disk));
  }
  return disks;
}

// A disk that may not be opened is an error only where the user named it: an ordinary user may not open the machine's
// disks, and an empty drive cannot be opened.
int statusOf(const std::vector<SurveyedDisk>& disks, bool areNamed) {
  const bool isWrong = std::any_of(disks.begin(), disks.end(), [&](const SurveyedDisk& disk) {
    return !disk.damage.empty() || (!disk.error.empty() && (areNamed || !disk.isClosed));
  });
  return isWrong ? kError : kDone;
}

}  // namespace

void addDisksCommand(Command& top, int& status) {
  const auto options = std::make_shared<DisksOptions>();
  Command command = top.addCommand("disks", "Show disks and what is on them, mounted or not, and whether it starts");
  command.addOption("DISK", options->names, "Disks or disk-image files (default: the disks of this machine)")
      .completes(ValueKind::disk);
  command.addFlag("--json", options->json, "Print JSON");
  command.setFooter(
      "Nothing is mounted or written. The last column is the verdict of `vorlix check` on an installed Windows.\n"
      "Exit status: 0 success, 2 a disk is damaged or truncated, or one that was named cannot be read.");
  command.setExamples({"vorlix disks", "vorlix disks mac.img other.img", "vorlix disks /dev/sda --json"});
  command.setAction([options, &status] {
    const std::vector<SurveyedDisk> disks = survey(options->names);
    if (options->json) {
      disksJson(disks).print();
    } else {
      printDisks(disks);
    }
    status = statusOf(disks, !options->names.empty());
  });
}

}  // namespace vorlix::tool
