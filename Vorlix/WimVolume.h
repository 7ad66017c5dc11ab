// SPDX-License-Identifier: Apache-2.0
/// @file
/// A volume made of an image of a WIM, so that it can be restored like any other source: first the image is applied to
/// a scratch file, and only when that is complete is a disk written.
#pragma once

#include <Vorlix/ImageSource.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/WimApplying.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vorlix {

/// Returns why no image of a WIM can be applied, as far as the WIM itself tells: one that is packed or comes from a
/// pipe, is a part of a split one, is encrypted, or has no list of images that can be read. Absent where nothing is
/// against it.
/// @param facts  of a source of kind ImageKind::wim
VORLIX_EXPORT std::optional<std::string> wimObstacle(const ImageFacts& facts);

/// Returns how many bytes the files of an image take on a volume, at least. Files with several names count once.
VORLIX_EXPORT uint64_t bytesOfFiles(const WimFacts::Image& image);

/// Returns an upper estimate of the bytes that the scratch file takes: the files, what the file system needs for each
/// of them, and its own structures. Not more than the volume has.
VORLIX_EXPORT uint64_t bytesOfScratch(const WimFacts::Image& image, uint64_t volumeSize);

/// Returns why a folder cannot take a scratch file of so many bytes. Absent where it can.
VORLIX_EXPORT std::optional<std::string> scratchObstacle(const std::string& folder, uint64_t bytes);

/// A WIM's image as a volume; null if there is none.
struct WimVolume {
  std::unique_ptr<ImageSource> source;  ///< of kind ImageKind::wim; clusters that are free come as unused pieces
  bool isStopped = false;               ///< the observer has said so
  ImageFailure failure;
};

/// Applies an image to a scratch file (WimApplying) and opens that. The same image gives another volume each time
/// (ImageFacts::isMadeAnew).
/// @param facts  of the WIM
VORLIX_EXPORT WimVolume applyWim(const ImageFacts& facts, const WimApplication& application,
                                 const WimObserver& observer);

}  // namespace vorlix
