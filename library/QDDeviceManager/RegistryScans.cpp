// SPDX-License-Identifier: Apache-2.0
//
// Scans of the I/O registry.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDSDiskRegistry.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/IORegistry.h>
#include <Vorlix/platform/Platform.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "Messages.h"

using vorlix::Dictionary;
using vorlix::KernReturn;
using vorlix::kKernSuccess;
using vorlix::RegistryEntry;
using vorlix::RegistryIterator;
using vorlix::tellDelegate;

namespace {

constexpr const char* kEFISystemPartition = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
constexpr size_t kPathSize = 1024;

// An entry from an iterator has a path and properties. If not, the registry is broken and cannot be relied on. Ends the
// process even in builds without assertions.
void assertSuccess(KernReturn code) {
  if (code == kKernSuccess) return;
  std::fputs("Assertion failed: KERN_SUCCESS == kr\n", stderr);
  std::abort();
}

std::shared_ptr<RegistryIterator> servicesMatching(const vorlix::RegistryMatching& matching) {
  vorlix::IORegistry& registry = *vorlix::platform().ioRegistry;
  vorlix::MasterPort port = 0;
  registry.masterPort(port);
  std::shared_ptr<RegistryIterator> services;
  const KernReturn code = registry.matchingServices(port, matching, services);
  if (code != kKernSuccess) {
    std::printf("IOServiceGetMatchingServices returned 0x%08x\n", static_cast<unsigned>(code));
  }
  return services;
}

// Logs the path of each matching service and passes its properties on.
template <typename Visit>
void visitServices(const vorlix::RegistryMatching& matching, Visit visit) {
  const auto services = servicesMatching(matching);
  while (const auto service = services ? services->next() : nullptr) {
    std::string path;
    assertSuccess(service->path(vorlix::kServicePlane, path));
    tellDelegate("Found a device of class kAppleSamplePCIClassName: " + path);
    std::optional<Dictionary> properties;
    assertSuccess(service->copyProperties(properties));
    visit(properties.value_or(Dictionary()));
  }
}

}  // namespace

std::vector<std::string> QDDeviceManager::ejectableMedia() {
  std::vector<std::string> paths;
  std::shared_ptr<RegistryIterator> services;
  MyFindEjectableMedia(&services);
  while (const auto service = services ? services->next() : nullptr) {
    std::array<char, kPathSize> path = {};
    if (MyGetDeviceFilePath(service, path.data(), path.size()) == kKernSuccess) {
      paths.emplace_back(path.data());
    } else {
      tellDelegate("Error finding removiable media");
    }
  }
  return paths;
}

std::optional<std::vector<std::shared_ptr<QDVolume>>> QDDeviceManager::attachedDisksFromIORegistry() {
  vorlix::RegistryMatching matching;
  matching.className = "IOMedia";
  matching.properties.set("Content Hint", std::string(kEFISystemPartition));
  visitServices(matching, [](const Dictionary& properties) {
    const auto name = properties.text("IONameMatched");
    if (name) tellDelegate("Device matched on name: " + *name);
  });
  return std::nullopt;
}

std::vector<Dictionary> QDDeviceManager::attachedAPFSVolumesFromIORegistry() {
  vorlix::RegistryMatching matching;
  matching.className = "AppleAPFSVolume";
  std::vector<Dictionary> volumes;
  visitServices(matching, [&](const Dictionary& properties) { volumes.push_back(properties); });
  return volumes;
}
