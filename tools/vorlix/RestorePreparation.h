// SPDX-License-Identifier: Apache-2.0
//
// What a `restore` run does to a disk: worked out and checked by reading alone.
#pragma once

#include <Vorlix/ImageSource.h>
#include <Vorlix/Restore.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HybridPlan.h"

namespace vorlix::tool {

struct RestoreRequest {
  std::string source;
  std::string disk;
  uint32_t partition = 0;
  bool isLegacy = true;  ///< write the MBR from which a BIOS starts the volume
  std::string bootCode;  ///< path; empty for the disk's, or our own where it has none
  bool force = false;
  bool writes = false;  ///< open the disk for writing
};

/// A restore before it is begun.
struct RestorePreparation {
  std::unique_ptr<ImageSource> source;
  std::string volume;       ///< name of the slice
  uint64_t volumeSize = 0;  ///< bytes of the slice
  std::string entryName;    ///< of the GPT entry; UTF-8
  std::string present;      ///< what is on the slice now: "NTFS, 1.00 GB"
  HybridPlan mbr;           ///< of a legacy start; its `disk` always
  bool changesMBR = false;
  RestorePlan plan;
};

/// Throws Failure if the source cannot be restored there. Every check that --force can override names it.
RestorePreparation prepareRestore(const RestoreRequest& request);

/// Returns the absolute path of a source that is a file; other names as they are.
std::string absoluteSource(const std::string& source);

}  // namespace vorlix::tool
