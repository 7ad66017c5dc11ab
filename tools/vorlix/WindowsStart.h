// SPDX-License-Identifier: Apache-2.0
//
// Puts the files that a start of Windows needs into place, from what its volume has of them.
#pragma once

#include <Vorlix/StartFiles.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "Backup.h"

namespace vorlix::tool {

struct WindowsStartOptions {
  std::string disk;
  uint32_t partition = 0;  ///< GPT entry of the Windows volume
  StartFirmware firmware = StartFirmware::efi;
  std::string description = "Windows";
  bool dryRun = false;
  bool json = false;  ///< of a dry run
  bool force = false;
  ChangeBackup backup;
  std::FILE* output = stdout;
};

/// Runs `bcd --from-windows`. @return the exit status. Throws Failure.
int putWindowsStart(const WindowsStartOptions& options);

}  // namespace vorlix::tool
