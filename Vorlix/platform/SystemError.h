// SPDX-License-Identifier: Apache-2.0
/// @file
/// An error number of the system as a value. This is the one place where `errno` becomes text or a status.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DiskArbitration.h>

#include <cstdint>
#include <string>

namespace vorlix {

/// Why a call of the system failed, and what it was about.
///
///     if (fsync(file) != 0) return SystemError{errno, path}.dissenter();
struct VORLIX_EXPORT SystemError {
  int number = 0;            ///< as in `errno`
  std::string subject = {};  ///< a path, a device or what was being done; may be empty

  /// The reason without the subject: "No space left on device".
  std::string reason() const;

  /// "<subject>: <reason>".
  std::string text() const;

  /// Disk Arbitration's published code for the number; kDissentError for a number without a code of its own.
  int32_t status() const;

  /// A dissenter with status() and text().
  Dissenter dissenter() const;
};

}  // namespace vorlix
