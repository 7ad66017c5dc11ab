// SPDX-License-Identifier: Apache-2.0
//
// What a `restore` run does to a disk: worked out and checked by reading alone.
#pragma once

#include <Vorlix/ImageSource.h>
#include <Vorlix/Restore.h>
#include <Vorlix/WimVolume.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HybridPlan.h"
#include "RestoreStart.h"

namespace vorlix::tool {

struct RestoreRequest {
  std::string source;
  std::string disk;
  uint32_t partition = 0;
  bool isLegacy = true;  ///< write the MBR from which a BIOS starts the volume
  EFIFiles efiFiles = EFIFiles::none;
  std::string bootCode;  ///< path; empty for the disk's, or our own where it has none
  bool force = false;
  bool writes = false;  ///< open the disk for writing
  uint32_t index = 0;   ///< of a WIM's image; 0 for the only one
  std::string scratch;  ///< folder for the volume that is made of a WIM; empty for the usual one
};

/// A restore before it is begun.
struct RestorePreparation {
  std::unique_ptr<ImageSource> source;
  std::string volume;                    ///< name of the slice
  uint64_t volumeSize = 0;               ///< bytes of the slice
  std::string entryName;                 ///< of the GPT entry; UTF-8
  std::string present;                   ///< what is on the slice now: "NTFS, 1.00 GB"
  HybridPlan mbr;                        ///< of a legacy start; its `disk` always
  NTFSPlace place;                       ///< of the slice
  std::optional<WimFacts::Image> image;  ///< of a WIM
  bool changesMBR = false;
  std::string efiVolume;                   ///< slice that gets the start files for EFI; empty for none
  std::optional<std::string> efiObstacle;  ///< why it will not get them
  RestorePlan plan;
};

/// Throws Failure if the source cannot be restored there. Every check that --force can override names it. The plan for
/// a WIM has no structures until it is applied.
/// @param applied  the WIM of the request as a volume; null if it is not applied yet
RestorePreparation prepareRestore(const RestoreRequest& request, std::unique_ptr<ImageSource> applied = nullptr);

/// Returns the image of a WIM that has this number, or the only one for 0. Throws Failure with the list of its images
/// otherwise, and for a WIM of which no image can be applied.
WimFacts::Image imageOf(const std::string& source, const ImageFacts& facts, uint32_t index);

/// Returns the folder for the volume that is made of a WIM. Throws Failure if there is no room for it.
std::string scratchFor(const RestoreRequest& request, const WimFacts::Image& image, uint64_t volumeSize);

/// Returns `image 2 "Windows 10 Pro", 4.20 GB`.
std::string imageText(const WimFacts::Image& image);

/// Returns the absolute path of a source that is a file; other names as they are.
std::string absoluteSource(const std::string& source);

}  // namespace vorlix::tool
