// SPDX-License-Identifier: Apache-2.0
/// @file
/// Finds out how a disk starts, and whether a volume is bootable.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <cstdint>
#include <memory>
#include <string>

class QDVolume;

/// Answers questions about booting. Objects of this class have no state; callers create one for each question. Any
/// thread may call any function.
class VORLIX_EXPORT QDDiskHelper : public vorlix::Object {
 public:
  QDDiskHelper() = default;

  /// Returns a new instance.
  static std::shared_ptr<QDDiskHelper> init();

  /// Finds out from sector 0 how a disk starts. The disk starts by EFI if the start head in the second MBR slot is 0,
  /// as on a disk with a plain protective MBR; otherwise it is a legacy disk. Nothing else is read, not even the
  /// signature. A disk that ends before that byte returns 1. Keyword form: `bootTypeForDisk:`.
  /// @param device  path of a device node, such as "/dev/disk0", or of a disk-image file.
  /// @return 0 for legacy, 1 for EFI, 4 if the device cannot be opened, as is usual without administrator rights.
  /// @note The device stays open until the process ends: each call uses up one descriptor.
  int32_t bootTypeForDisk(const std::string& device);

  /// Returns whether a mounted volume has one of these items: "System/Library", "com.apple.recovery.boot/boot.efi",
  /// "Windows/System32" or "ntldr", looked for in this order. On a volume whose `fileSystemType` is FAT, exFAT or NTFS
  /// the case of the names does not matter. Writes the line "Checking if bootable" to the system log. Keyword form:
  /// `isBootable:`.
  /// @param volume  `filePath` is the root of the volume. If `filePath` is absent, or `volume` is null, the paths are
  ///                relative to the working directory.
  bool isBootable(const std::shared_ptr<QDVolume>& volume);
};
