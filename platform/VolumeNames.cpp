// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/foundation/Paths.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace vorlix {
namespace {

constexpr std::array<const char*, 4> kCaseBlindFileSystems = {"ntfs", "msdos", "MS-DOS", "exfat"};

}  // namespace

bool isCaseBlind(std::string_view fileSystem) {
  return std::any_of(kCaseBlindFileSystems.begin(), kCaseBlindFileSystems.end(),
                     [&](const char* kind) { return containsInAnyCase(fileSystem, kind); });
}

bool isCaseBlindDevice(const std::string& device) {
  const auto session = platform().diskArbitration->createSession();
  const auto disk = session ? session->diskFromBSDName(device) : nullptr;
  const auto description = disk ? disk->copyDescription() : std::nullopt;
  return description && isCaseBlind(description->text(kDescriptionVolumeKind).value_or(""));
}

bool isCaseBlindMount(const std::string& mountPath) {
  return isCaseBlind(platform().diskArbitration->volumeKindAt(URL::fileURLWithPath(mountPath)).value_or(""));
}

std::vector<std::string> spellingsOf(const std::vector<std::string>& names, std::string_view name) {
  std::vector<std::string> found;
  std::copy_if(names.begin(), names.end(), std::back_inserter(found),
               [&](const std::string& entry) { return lowerCase(entry) == lowerCase(name); });
  return found;
}

std::string pathInAnySpelling(std::string folder, std::initializer_list<const char*> names) {
  Files& files = *platform().files;
  for (const char* const name : names) {
    const std::string path = appendPathComponent(folder, name);
    std::vector<std::string> found;
    if (!files.kindOf(path)) {
      found = spellingsOf(files.namesIn(folder).value_or(std::vector<std::string>()), name);
    }
    std::sort(found.begin(), found.end());  // if there are several spellings, always use the same one
    folder = found.empty() ? path : appendPathComponent(folder, found.front());
  }
  return folder;
}

}  // namespace vorlix
