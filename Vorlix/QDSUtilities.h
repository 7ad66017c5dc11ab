// SPDX-License-Identifier: Apache-2.0
/// @file
/// Set-up of a Windows volume for legacy (BIOS) booting.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/URL.h>

#include <cstdint>
#include <optional>
#include <string>

/// Operations on volumes that need more than plain data.
class VORLIX_EXPORT QDSUtilities {
 public:
  QDSUtilities() = delete;

  /// Lays out the files that the Windows boot manager needs at the root of a volume when a BIOS starts it
  /// (`setupMBRBootFilesForDevice:bcdPath:`). These are copied, in this order, each only where its destination does not
  /// exist yet:
  ///
  /// | source                             | destination  |
  /// |------------------------------------|--------------|
  /// | `Windows/Boot/PCAT` (folder)       | `boot`       |
  /// | `Windows/Boot/Fonts` (folder)      | `boot/Fonts` |
  /// | `bcdPath`                          | `boot/BCD`   |
  /// | `Windows/Boot/PCAT/bootmgr`        | `bootmgr`    |
  ///
  /// A volume with an item `BOOT` at its root counts as set up and is left alone; where case is not told apart, `boot`
  /// is such an item. A source that does not exist is skipped, with a message, if the existing source before it was a
  /// folder; otherwise its copy is tried and fails.
  ///
  /// @param device   root of the mounted, writable volume. Absent (or without a path): logged, nothing else is done.
  /// @param bcdPath  path of a boot configuration store, anywhere.
  /// @return 0, or -1 when a copy failed; the reason is in the log and what was copied before stays. A second run then
  ///         copies what is missing.
  static int32_t setupMBRBootFilesForDevice(const std::optional<vorlix::URL>& device, const std::string& bcdPath);
};
