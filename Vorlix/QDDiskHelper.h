// SPDX-License-Identifier: Apache-2.0
/// @file
/// How a disk starts, and whether a volume can be started from.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <cstdint>
#include <memory>
#include <string>

class QDVolume;

/// Objects of this class have no state; callers make one for each question. Any thread may ask.
class VORLIX_EXPORT QDDiskHelper : public vorlix::Object {
 public:
  QDDiskHelper() = default;

  /// A new instance.
  static std::shared_ptr<QDDiskHelper> init();

  /// Tells from sector 0 which way a disk starts: by EFI where the start head of the second MBR slot is 0, as beside a
  /// plain protective slot, else as legacy. Nothing else is looked at, not even the signature; of a disk that ends
  /// before that byte the answer is 1. The device stays open until the process ends. Keyword form: `bootTypeForDisk:`.
  /// @param device  path of a device node, such as "/dev/disk0", or of an image file.
  /// @return 0 legacy, 1 EFI, 4 the device could not be opened; without administrator rights this is the usual answer.
  int32_t bootTypeForDisk(const std::string& device);

  /// Whether one of these exists on a mounted volume, looked for in this order: "System/Library",
  /// "com.apple.recovery.boot/boot.efi", "Windows/System32", "ntldr". On FAT, exFAT and NTFS, by its
  /// `fileSystemType`, any spelling in upper and lower case will do. The system's log gets the line "Checking if
  /// bootable". Keyword form: `isBootable:`.
  /// @param volume  its `filePath` is the root; of a volume without one (or of none) the paths are relative to the
  ///                working folder.
  bool isBootable(const std::shared_ptr<QDVolume>& volume);
};
