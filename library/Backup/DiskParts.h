// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/Backup.h>
#include <Vorlix/BootSectors.h>
#include <Vorlix/GPTCheck.h>

#include <memory>
#include <string>
#include <vector>

namespace vorlix {

/// What a look at the volume's whole disk has found.
struct VolumesDisk {
  std::string name;
  std::shared_ptr<DeviceHandle> handle;  ///< null where it cannot be read, with a `reason`
  std::string reason;
  bool isUnread = false;  ///< reading failed for another reason than missing rights
  uint64_t size = 0;
  uint64_t blockSize = 0;
  Sector sector0 = {};
  GPTReport gpt;
};

VolumesDisk lookAtDisk(const std::string& name);

/// Adds boot code, both copies of the partition table and the boot store. @param isPartitioned  whether the volume is a
/// slice of the disk.
void addDiskParts(const VolumesDisk& facts, bool isPartitioned, std::vector<BackupPart>& parts);

}  // namespace vorlix
