// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's disk arbitration. Disks by name, what is known of them.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <memory>
#include <optional>
#include <string>

namespace vorlix {

// Keys of a disk's description, as Disk Arbitration publishes them.
inline constexpr const char* kDescriptionMediaBlockSize = "DAMediaBlockSize";  ///< integer, bytes

/// A disk object. It is a name within its session; holding one keeps nothing open.
class Disk {
 public:
  virtual ~Disk() = default;

  /// What the system knows of the disk now. Absent when it knows no such disk.
  virtual std::optional<Dictionary> copyDescription() = 0;
};

/// A connection to disk arbitration. Used by one thread at a time.
class DiskArbitrationSession {
 public:
  virtual ~DiskArbitrationSession() = default;

  /// The disk of a device name, with or without "/dev/". A name that no disk has may give an object without a
  /// description, or null.
  virtual std::shared_ptr<Disk> diskFromBSDName(const std::string& name) = 0;
};

class DiskArbitration {
 public:
  virtual ~DiskArbitration() = default;

  /// Opens a connection. Null when the service cannot be reached.
  virtual std::shared_ptr<DiskArbitrationSession> createSession() = 0;
};

}  // namespace vorlix
