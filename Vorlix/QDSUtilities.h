// SPDX-License-Identifier: Apache-2.0
/// @file
/// Set-up of a Windows volume for legacy (BIOS) booting, and what a privileged host asks before it acts.
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

  /// Decides whether a process may have what it asks a privileged host for: true only if the code that it runs is
  /// signed by the developer team of this product (`isCorrectlySignedClientWithPID:`). The requirement is "anchor apple
  /// generic and certificate leaf[subject.OU] = K7M2QZ4RNA". Any thread may ask; nothing is remembered between calls.
  ///
  /// A refusal logs the step that failed, without a line feed: "Error creating number", "Error creating attributes",
  /// "Error creating SecCodeCopyGuestWithAttributes" (no such process), "Error creating
  /// SecRequirementCreateWithStringAndErrors", or "Request from invalid client. Refusing". Where the system does not
  /// sign code, the check is the one that docs/caller-check.md describes.
  ///
  /// A process identifier is a weak name: a client that runs another executable between its request and this call is
  /// judged by the new one.
  static bool isCorrectlySignedClientWithPID(int32_t process);

  /// Whether System Integrity Protection is on, as "/usr/bin/csrutil status" tells (`isSIPEnabled`). False on a system
  /// without that tool, and where its output has "System Integrity Protection status: disabled" in it or is not UTF-8;
  /// true for every other output, an error's included. Its exit status and standard error are not looked at. Waits
  /// until the tool closes its output. Any thread may ask.
  /// @throws std::system_error  when the tool is there but cannot be launched.
  static bool isSIPEnabled();
};
