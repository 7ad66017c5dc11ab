// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/Platform.h>
#include <sys/stat.h>

#include "QDSDiskFunctions/Log.h"

using vorlix::logMessage;

namespace {

struct BootItem {
  std::string source;
  std::string destination;
};

std::string inFolder(const std::string& folder, const char* name) {
  return folder.back() == '/' ? folder + name : folder + "/" + name;
}

bool exists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

// What is copied through a link would not be on the volume.
bool isLink(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// Tells whether an item exists, and of one that does whether it is a folder.
bool exists(const std::string& path, bool& isFolder) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return false;
  isFolder = S_ISDIR(status.st_mode);
  return true;
}

}  // namespace

int32_t QDSUtilities::setupMBRBootFilesForDevice(const std::optional<vorlix::URL>& device, const std::string& bcdPath) {
  if (!device) logMessage("The volume must mounted and writable\n%s", "");
  logMessage("Setting up legacy booting to %s\n", device ? device->path().c_str() : "(null)");
  if (!device || device->path().empty()) return 0;
  const std::string& root = device->path();
  if (exists(inFolder(root, "BOOT"))) return 0;

  const BootItem items[] = {
      {inFolder(root, "Windows/Boot/PCAT"), inFolder(root, "boot")},
      {inFolder(root, "Windows/Boot/Fonts"), inFolder(root, "boot/Fonts")},
      {bcdPath, inFolder(root, "boot/BCD")},
      {inFolder(root, "Windows/Boot/PCAT/bootmgr"), inFolder(root, "bootmgr")},
  };
  // Not set anew for each item: a missing item is optional after a folder and required after a file.
  bool isFolder = false;
  for (const auto& [source, destination] : items) {
    if (!exists(source, isFolder) && isFolder) {
      logMessage("%s does not exist, skipping\n", source.c_str());
      continue;
    }
    if (exists(destination)) continue;
    logMessage("copying %s to %s\n", source.c_str(), destination.c_str());
    const std::string folder = inFolder(root, "boot");
    if (destination.starts_with(folder + "/") && isLink(folder)) {
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
