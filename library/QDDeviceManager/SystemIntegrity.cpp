// SPDX-License-Identifier: Apache-2.0
//
// Whether System Integrity Protection prevents setting a startup disk.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemPaths.h>

#include "library/QDTaskHelper/StandardOutput.h"

namespace {

std::optional<std::string> devicePathOf(const std::optional<vorlix::Dictionary>& description) {
  return description ? description->text(vorlix::kDescriptionDevicePath) : std::nullopt;
}

}  // namespace

bool QDDeviceManager::checkForSIP() {
  return isSIPEnabled();
}

bool QDDeviceManager::isSIPEnabled() {
  const auto files = fileManager();
  const std::string tool = vorlix::platform().systemPaths->statusTool();
  if (!files || !files->fileExistsAtPath(tool)) return false;
  return isSIPEnabledFromStandardOutput(standardOutputForTask({tool, {"status"}}));
}

std::optional<std::string> QDDeviceManager::standardOutputForTask(const vorlix::Task& task) {
  return vorlix::standardOutputOf(task);
}

// If NVRAM is not protected, a startup disk can be set, so that counts as disabled.
bool QDDeviceManager::isSIPEnabledFromStandardOutput(const std::optional<std::string>& output) {
  if (!output || output->empty()) return false;
  return output->find("NVRAM Protections: disabled") == std::string::npos &&
         output->find("System Integrity Protection status: disabled") == std::string::npos;
}

bool QDDeviceManager::checkForSIPForDevice(const std::string& device) {
  return QDSUtilities::isSIPEnabled() && isOnStartupDisk(device);
}

bool QDDeviceManager::isOnStartupDisk(const std::string& device) {
  const auto path = devicePathOf(diskInfo(device));
  return path && path == devicePathOf(diskInfoFromMountedPath("/"));
}

void QDDeviceManager::showSIPInfo() {}
