// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/foundation/Paths.h>
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>

#include <initializer_list>
#include <utility>

#include "library/QDSDiskFunctions/Log.h"

using vorlix::logMessage;

namespace {

struct BootItem {
  std::string source;
  std::string destination;
};

// The paths of a volume's items. NTFS, FAT and exFAT may have them in any letter case. The kind of the volume is looked
// up only if it has another spelling than the usual one.
class VolumePaths {
 public:
  explicit VolumePaths(std::string root) : root_(std::move(root)) {}

  std::string of(std::initializer_list<const char*> names) {
    std::string usual = root_;
    for (const char* const name : names) usual = vorlix::appendPathComponent(usual, name);
    const std::string found = vorlix::pathInAnySpelling(root_, names);
    return found != usual && isCaseBlind() ? found : usual;
  }

 private:
  bool isCaseBlind() {
    if (!isCaseBlind_) isCaseBlind_ = vorlix::isCaseBlindMount(root_);
    return *isCaseBlind_;
  }

  std::string root_;
  std::optional<bool> isCaseBlind_;
};

constexpr int kBootItems = 4;

// In the order of copying.
BootItem bootItem(int row, VolumePaths& paths, const std::string& bcdPath) {
  switch (row) {
    case 0:
      return {paths.of({"Windows", "Boot", "PCAT"}), paths.of({"boot"})};
    case 1:
      return {paths.of({"Windows", "Boot", "Fonts"}), paths.of({"boot", "Fonts"})};
    case 2:
      return {bcdPath, paths.of({"boot", "BCD"})};
    default:
      return {paths.of({"Windows", "Boot", "PCAT", "bootmgr"}), paths.of({"bootmgr"})};
  }
}

}  // namespace

int32_t QDSUtilities::setupMBRBootFilesForDevice(const std::optional<vorlix::URL>& device, const std::string& bcdPath) {
  if (!device) logMessage("The volume must mounted and writable\n%s", "");
  logMessage("Setting up legacy booting to %s\n", device ? device->path().c_str() : "(null)");
  if (!device || device->path().empty()) return 0;
  VolumePaths paths(device->path());
  vorlix::Files& files = *vorlix::platform().files;
  if (files.kindOf(paths.of({"BOOT"}))) return 0;

  // Not reset for each item: a missing item is optional after a folder and required after a file.
  bool isFolder = false;
  // Each item is looked up only when it is copied, because the first copy makes the folder for the next ones.
  for (int row = 0; row < kBootItems; ++row) {
    const auto [source, destination] = bootItem(row, paths, bcdPath);
    const auto kind = files.kindOf(source);
    if (kind) isFolder = kind == vorlix::FileKind::folder;
    if (!kind && isFolder) {
      logMessage("%s does not exist, skipping\n", source.c_str());
      continue;
    }
    if (files.kindOf(destination)) continue;
    logMessage("copying %s to %s\n", source.c_str(), destination.c_str());
    const std::string folder = paths.of({"boot"});
    // A copy through a link would not be on the volume.
    if (destination.starts_with(folder + "/") && files.isLink(folder)) {
      logMessage("Error copying %s to %s with error %s\n", source.c_str(), destination.c_str(), "boot is a link");
      return -1;
    }
    if (const auto reason = vorlix::platform().fileCopy->copyItem(source, destination)) {
      logMessage("Error copying %s to %s with error %s\n", source.c_str(), destination.c_str(), reason->c_str());
      return -1;
    }
  }
  return 0;
}
