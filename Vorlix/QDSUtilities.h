// SPDX-License-Identifier: Apache-2.0
/// @file
/// Sets up a Windows volume for legacy (BIOS) booting, and makes the checks that a privileged host needs before it
/// acts.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/URL.h>

#include <cstdint>
#include <optional>
#include <string>

/// Operations on volumes and processes that need more than plain data.
class VORLIX_EXPORT QDSUtilities {
 public:
  QDSUtilities() = delete;

  /// Copies the files that the Windows boot manager needs to the root of a volume that a BIOS starts
  /// (`setupMBRBootFilesForDevice:bcdPath:`). It copies these items in this order, each only if its destination does
  /// not exist yet:
  ///
  /// | source                             | destination  |
  /// |------------------------------------|--------------|
  /// | `Windows/Boot/PCAT` (folder)       | `boot`       |
  /// | `Windows/Boot/Fonts` (folder)      | `boot/Fonts` |
  /// | `bcdPath`                          | `boot/BCD`   |
  /// | `Windows/Boot/PCAT/bootmgr`        | `bootmgr`    |
  ///
  /// A volume with an item `BOOT` at its root counts as set up and is not changed. On a volume that ignores case,
  /// `boot` is such an item. If a source does not exist and the last source that did exist was a folder, the source is
  /// skipped with a message; otherwise the function tries to copy it and fails. Nothing is copied through a symbolic
  /// link at `boot`; the function fails.
  ///
  /// @param device   root of the mounted, writable volume. If it is absent or has no path, the function logs that, does
  ///                 nothing else and returns 0.
  /// @param bcdPath  path of a boot configuration store on any volume.
  /// @return 0, or -1 if a copy failed; the log has the reason. Items that were copied before the failure stay, and
  ///         another call copies what is missing.
  static int32_t setupMBRBootFilesForDevice(const std::optional<vorlix::URL>& device, const std::string& bcdPath);

  /// Returns true only if the code that a process runs is signed by this product's developer team
  /// (`isCorrectlySignedClientWithPID:`). A privileged host calls it before it does what the process asks for. The
  /// requirement is "anchor apple generic and certificate leaf[subject.OU] = K7M2QZ4RNA". On a system that does not
  /// sign code, the check is the one that docs/caller-check.md describes. Any thread may call it; no result is cached.
  ///
  /// If the check fails, the step that failed is logged without a line feed: "Error creating number", "Error creating
  /// attributes", "Error creating SecCodeCopyGuestWithAttributes" (no such process), "Error creating
  /// SecRequirementCreateWithStringAndErrors", or "Request from invalid client. Refusing".
  ///
  /// @warning A process identifier is a weak name: if a client executes another program between its request and this
  ///          call, the check sees that other program.
  static bool isCorrectlySignedClientWithPID(int32_t process);

  /// Returns whether System Integrity Protection is on, according to the output of "/usr/bin/csrutil status"
  /// (`isSIPEnabled`).
  ///
  /// Returns false if the system does not have that tool, or if the output contains "System Integrity Protection
  /// status: disabled" or is not UTF-8. Returns true for every other output, including that of an error. The tool's
  /// exit status and standard error are ignored. Waits until the tool closes its output. Any thread may call it.
  /// @throws std::system_error  if the tool exists but cannot be launched.
  static bool isSIPEnabled();
};
