// SPDX-License-Identifier: Apache-2.0
//
// What disk arbitration and the I/O registry know of a device, a mounted volume and the machine.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/IORegistry.h>
#include <Vorlix/platform/Platform.h>

#include <cstdio>

using vorlix::Dictionary;
using vorlix::URL;

namespace {

constexpr int32_t kUnmountPending = -1;

}  // namespace

std::optional<std::string> QDDeviceManager::diskFromSlice(const std::string& device) {
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) {
    std::printf("session NULL");
    return std::nullopt;
  }
  const auto disk = session->diskFromBSDName(device);
  if (!disk) {
    std::printf("disk NULL");
    return std::nullopt;
  }
  const auto whole = disk->wholeDisk();
  const auto name = whole ? whole->bsdName() : std::nullopt;
  if (!name) return std::nullopt;
  return "/dev/" + *name;
}

// These lookups set the status of unmounts to pending although there is no unmount. Hosts that poll it expect that.
std::optional<Dictionary> QDDeviceManager::diskInfoForDeviceNodeAtURL(const URL& url) {
  unmountStatus_ = kUnmountPending;
  const auto session = vorlix::platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromBSDName(url.path()) : nullptr;
  return disk ? disk->copyDescription() : std::nullopt;
}

std::optional<Dictionary> QDDeviceManager::diskInfoForVolumeMountedAtURL(const URL& url) {
  unmountStatus_ = kUnmountPending;
  const auto session = vorlix::platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromVolumePath(url) : nullptr;
  return disk ? disk->copyDescription() : std::nullopt;
}

std::optional<Dictionary> QDDeviceManager::diskInfo(const std::string& path) {
  return diskInfoForDeviceNodeAtURL(URL::fileURLWithPath(path));
}

std::optional<Dictionary> QDDeviceManager::diskInfoFromMountedPath(const std::string& path) {
  return diskInfoForVolumeMountedAtURL(URL::fileURLWithPath(path));
}

std::optional<std::string> QDDeviceManager::fileSystemTypeAtPath(const std::string& path) {
  unmountStatus_ = kUnmountPending;
  const auto session = vorlix::platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromVolumePath(URL::fileURLWithPath(path)) : nullptr;
  return disk ? disk->volumeType() : std::nullopt;
}

std::string QDDeviceManager::fileSystemDescriptionAtPath(const std::string&) {
  return "";
}

std::string QDDeviceManager::currentModelIdentifier() {
  vorlix::IORegistry& registry = *vorlix::platform().ioRegistry;
  vorlix::MasterPort port = 0;
  registry.masterPort(port);
  vorlix::RegistryMatching matching;
  matching.className = "IOPlatformExpertDevice";
  std::shared_ptr<vorlix::RegistryIterator> services;
  registry.matchingServices(port, matching, services);
  const auto machine = services ? services->next() : nullptr;
  const auto value = machine ? machine->property("model") : std::nullopt;
  const auto* const bytes = value ? std::get_if<vorlix::Data>(&*value) : nullptr;
  if (bytes == nullptr) return "";
  std::string model(bytes->begin(), bytes->end());
  if (!vorlix::isUtf8(model)) return "";
  std::erase(model, ' ');
  std::erase(model, '\0');
  return model;
}
