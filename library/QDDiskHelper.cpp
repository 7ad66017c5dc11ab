// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDVolume.h>
#include <sys/stat.h>

#include <algorithm>

#include "library/QDDeviceManager/WindowsFolders.h"
#include "library/QDDiskHelper/BootFiles.h"
#include "library/QDSDiskFunctions/DeviceStreams.h"
#include "library/QDSDiskFunctions/SystemLog.h"

namespace {

constexpr int32_t kLegacy = 0;
constexpr int32_t kEFI = 1;
constexpr int32_t kNotOpened = 4;

bool exists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

std::array<std::string, 4> vorlix::bootFilePaths(const QDVolume& volume) {
  const std::string root = volume.filePath().value_or("");
  return {
      pathOnVolume(volume, root, {"System", "Library"}),
      pathOnVolume(volume, root, {"com.apple.recovery.boot", "boot.efi"}),
      pathOnVolume(volume, root, {"Windows", "System32"}),
      pathOnVolume(volume, root, {"ntldr"}),
  };
}

std::shared_ptr<QDDiskHelper> QDDiskHelper::init() {
  return std::make_shared<QDDiskHelper>();
}

int32_t QDDiskHelper::bootTypeForDisk(const std::string& device) {
  vorlix::Stream stream = vorlix::openDeviceForReading(device.c_str());
  if (!stream) return kNotOpened;
  PartitionTable table = {};
  uint32_t active = 0;
  read_bios_partition_table(stream.get(), &table, &active);
  // Not closed: one descriptor a call stays open for the process's life.
  vorlix::keepOpen(std::move(stream));
  return table.parts[1].start_head == 0 ? kEFI : kLegacy;
}

bool QDDiskHelper::isBootable(const std::shared_ptr<QDVolume>& volume) {
  vorlix::logToSystem("Checking if bootable");
  const auto paths = vorlix::bootFilePaths(volume ? *volume : *QDVolume::init());
  return std::any_of(paths.begin(), paths.end(), exists);
}
