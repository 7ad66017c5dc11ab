// SPDX-License-Identifier: Apache-2.0
//
// How a volume starts, and setting the startup disk.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/Shell.h>
#include <Vorlix/platform/UserIdentity.h>
#include "foundation/TextsInPropertyList.h"

#include <algorithm>
#include <string_view>

#include "Messages.h"
#include "library/QDSDiskFunctions/Log.h"

using vorlix::logToSystem;
using vorlix::shown;
using vorlix::tellDelegate;

namespace {

constexpr const char* kNextOnly = " -nextonly";
constexpr size_t kLargestModelList = size_t{1} << 20;

std::string blessing(const std::string& device) {
  return "/usr/sbin/bless -device " + device + " -setBoot";
}

// Returns whether a text is one plain word for a shell and not an option for the tool. The command runs with the rights
// of the administrator, and anybody who can name a file or a mount may have chosen the name of the device.
bool isPlainWord(const std::string& text) {
  constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+@%:=,";
  if (text.empty() || text.front() == '-') return false;
  return text.find_first_not_of(kPlain) == std::string::npos;
}

}  // namespace

uint32_t QDDeviceManager::bootTypeForDisk(const std::shared_ptr<QDVolume>& volume) {
  const auto device = volume ? volume->device() : std::nullopt;
  const auto disk = device ? diskFromSlice(*device) : std::nullopt;
  const auto startOfDisk = static_cast<uint32_t>(QDDiskHelper::init()->bootTypeForDisk(disk.value_or("")));
  if (volume && volume->filePath() == "/") return kBootRoot;
  const auto fileSystem = volume ? volume->fileSystemType() : std::nullopt;
  if (fileSystem == "hfs" || fileSystem == "apfs") {
    tellDelegate("Found HFS or APFS disk");
    return kBootMac;
  }
  if (startOfDisk == kBootLegacy) {
    logToSystem("WE HAVE LEGACY BOOT");
    return kBootLegacy;
  }
  if (startOfDisk == kBootEFI) {
    logToSystem("WE HAVE EFI BOOT");
    return kBootEFI;
  }
  tellDelegate("Could not detect disk startup type");
  return kBootUnknown;
}

bool QDDeviceManager::selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type, bool nextOnly) {
  const auto device = volume ? volume->device() : std::nullopt;
  tellDelegate("Setting startup disk to device " + shown(device));
  const std::string efiSlice = shown(device ? diskFromSlice(*device) : std::nullopt) + "s1";

  std::string chosen = shown(device);
  switch (type) {
    case kBootLegacy:
      tellDelegate("Setting boot disk to legacy volume.");
      break;
    case kBootUnknown:
      tellDelegate("Disk type unknown so selecting EFI style booting.");
      [[fallthrough]];
    case kBootEFI:
      tellDelegate("Setting boot disk to EFI volume.");
      chosen = efiSlice;
      break;
    case kBootMac:
      tellDelegate("Setting boot disk to Mac volume.");
      break;
    case kBootRoot:
      return false;
    case kBootVolumeEFI:
      logToSystem("Selecting type Volume EFI");
      break;
    default:
      tellDelegate("Unknown disktype. Aborting set boot disk.");
      return false;
  }
  std::string command = blessing(chosen);
  if (type == kBootVolumeEFI) {
    command += kNextOnly;
    logToSystem("Command is " + command);
  }
  // With kBootVolumeEFI the command can have the option twice, which means the same to the tool.
  const bool isRemovable = volume && volume->isRemovable();
  if (nextOnly && !isRemovable) command += kNextOnly;

  if (vorlix::platform().userIdentity->realUserID() != 0) {
    tellDelegate("Process not running as root so not attempting to set startup disk!");
    return true;
  }
  if (!isPlainWord(chosen)) {
    tellDelegate("Not setting startup disk: the device's name is not plain");
    return false;
  }
  tellDelegate("Running command \"" + command + "\"");
  vorlix::platform().shell->run(command);
  return true;
}

bool QDDeviceManager::selectStartupDisk(const std::shared_ptr<QDVolume>& volume, uint32_t type) {
  return selectStartupDisk(volume, type, true);
}

bool QDDeviceManager::selectNextOnlyStartupDisk(const std::shared_ptr<QDVolume>& volume) {
  return selectStartupDisk(volume, bootTypeForDisk(volume));
}

bool QDDeviceManager::isEFIWindowsBootable() {
  const std::string model = currentModelIdentifier();
  const auto resource = vorlix::platform().hostBundle->pathForResource("BeforeEFI", "plist", "");
  const auto list = resource ? vorlix::platform().files->contentsOf(*resource, kLargestModelList) : std::nullopt;
  const auto models = list ? vorlix::textsInPropertyList(*list) : std::nullopt;
  return !models || std::find(models->begin(), models->end(), model) == models->end();
}
