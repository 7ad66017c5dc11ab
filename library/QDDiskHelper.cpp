// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <array>
#include <string>

#include <Vorlix/WindowsFolders.h>
#include "library/QDSDiskFunctions/Log.h"
#include "library/QDSDiskFunctions/OpenDevices.h"

namespace {

constexpr int32_t kLegacy = 0;
constexpr int32_t kEFI = 1;
constexpr int32_t kNotOpened = 4;

// A volume is bootable if one of these exists. For a volume without a mount point the paths are relative to the working
// folder.
std::array<std::string, 4> bootFilePaths(const QDVolume& volume) {
  const std::string root = volume.filePath().value_or("");
  using vorlix::pathOnVolume;
  return {
      pathOnVolume(volume, root, {"System", "Library"}),
      pathOnVolume(volume, root, {"com.apple.recovery.boot", "boot.efi"}),
      pathOnVolume(volume, root, {"Windows", "System32"}),
      pathOnVolume(volume, root, {"ntldr"}),
  };
}

}  // namespace

std::shared_ptr<QDDiskHelper> QDDiskHelper::init() {
  return std::make_shared<QDDiskHelper>();
}

int32_t QDDiskHelper::bootTypeForDisk(const std::string& device) {
  vorlix::Stream stream = vorlix::openDeviceForReading(device.c_str());
  if (!stream) return kNotOpened;
  PartitionTable table = {};
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  // Not closed: after each call one descriptor stays open until the process ends.
  vorlix::keepOpen(std::move(stream));
  return table.parts[1].start_head == 0 ? kEFI : kLegacy;
}

bool QDDiskHelper::isBootable(const std::shared_ptr<QDVolume>& volume) {
  vorlix::logToSystem("Checking if bootable");
  const auto paths = bootFilePaths(volume ? *volume : *QDVolume::init());
  return std::any_of(paths.begin(), paths.end(),
                     [](const std::string& path) { return vorlix::platform().files->kindOf(path).has_value(); });
}
