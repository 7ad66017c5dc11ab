// SPDX-License-Identifier: Apache-2.0
#include "VolumeNames.h"

#include <Vorlix/foundation/FileManager.h>
#include <Vorlix/foundation/Paths.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>

#include "CaseFolding.h"

namespace vorlix {
namespace {

constexpr std::array<const char*, 4> kCaseBlindFileSystems = {"ntfs", "msdos", "MS-DOS", "exfat"};

bool isCaseBlindDisk(const std::shared_ptr<Disk>& disk) {
  const std::optional<Dictionary> description = disk ? disk->copyDescription() : std::nullopt;
  return description && isCaseBlind(description->text(kDescriptionVolumeKind).value_or(""));
}

}  // namespace

bool isCaseBlind(std::string_view fileSystem) {
  return std::any_of(kCaseBlindFileSystems.begin(), kCaseBlindFileSystems.end(),
                     [&](const char* kind) { return containsInAnyCase(fileSystem, kind); });
}

bool isCaseBlindDevice(const std::string& device) {
  const auto session = platform().diskArbitration->createSession();
  return session && isCaseBlindDisk(session->diskFromBSDName(device));
}

bool isCaseBlindMount(const std::string& mountPath) {
  const auto session = platform().diskArbitration->createSession();
  return session && isCaseBlindDisk(session->diskFromVolumePath(URL::fileURLWithPath(mountPath)));
}

std::vector<std::string> spellingsOf(const std::vector<std::string>& names, std::string_view name) {
  std::vector<std::string> found;
  std::copy_if(names.begin(), names.end(), std::back_inserter(found),
               [&](const std::string& entry) { return lowerCase(entry) == lowerCase(name); });
  return found;
}

std::string pathInAnySpelling(std::string folder, std::initializer_list<const char*> names) {
  const auto files = FileManager::defaultManager();
  for (const char* const name : names) {
    const std::string path = appendPathComponent(folder, name);
    std::vector<std::string> found;
    if (!files->fileExistsAtPath(path)) {
      found = spellingsOf(files->contentsOfDirectoryAtPath(folder).value_or(std::vector<std::string>()), name);
    }
    folder = found.empty() ? path : appendPathComponent(folder, found.front());
  }
  return folder;
}

}  // namespace vorlix
