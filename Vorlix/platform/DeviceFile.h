// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: devices, slices and disk-image files as arrays of bytes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vorlix {

/// What a device is opened for.
enum class DeviceAccess { readOnly, readWrite };

/// Advisory lock against other processes. It covers the whole disk, even if a slice is opened, except on macOS, which
/// has locks for device nodes and locks the node that is opened.
enum class DeviceLock { none, shared, exclusive };

/// Identifies an open device, whatever name it was opened by and whatever has that name now.
struct DeviceIdentity {
  /// The whole disk or image file, as a string that only the system understands. It is equal for all handles to one
  /// disk as long as the disk stays attached or the file exists.
  std::string disk;
  /// Bytes from the start of that disk to what was opened. Absent if the system does not know.
  std::optional<uint64_t> offset;

  friend bool operator==(const DeviceIdentity&, const DeviceIdentity&) = default;  ///< compares all fields
};

/// A run of bytes of an open device.
struct DataRun {
  uint64_t offset = 0;  ///< bytes from the start of what was opened
  uint64_t size = 0;    ///< bytes; 0 at the end of the device
};

/// An open device. Offsets count from the start of what was opened, the disk or the slice.
///
/// One thread at a time uses a handle. Destroying the handle closes the device.
class DeviceHandle {
 public:
  virtual ~DeviceHandle() = default;

  /// Reads up to `count` bytes at `offset`. @return the bytes read, fewer only if the device ends (0 at its end), or -1
  /// with `errno` set.
  virtual ssize_t readAt(void* buffer, size_t count, uint64_t offset) = 0;

  /// Writes `count` bytes at `offset`, never past the end of a slice. @return the bytes written, fewer only if the
  /// device ends, or -1 with `errno` set.
  virtual ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) = 0;

  /// Syncs what was written to the medium. @return 0, or -1 with `errno` set.
  virtual int sync() = 0;

  /// Returns whether a sync of `other` also syncs what was written through this handle. Only the system's own handles
  /// know, for disk-image files: slices of one image are parts of one file.
  virtual bool isSyncedWith(const DeviceHandle& other) const {
    static_cast<void>(other);
    return false;
  }

  /// Reads like readAt(), but from the medium instead of the system's copy in memory, as far as programs can ask the
  /// system for that. Call sync() first.
  virtual ssize_t readMediumAt(void* buffer, size_t count, uint64_t offset) { return readAt(buffer, count, offset); }

  /// Returns the identity. Absent if the system does not know it.
  virtual std::optional<DeviceIdentity> identity() { return std::nullopt; }

  /// Returns the size in bytes. Absent if the system does not know it.
  virtual std::optional<uint64_t> size() = 0;

  /// Returns the first run of bytes at or after `offset` that the system stores. The bytes between `offset` and the run
  /// read as zeros, as in a sparse file. If only zeros follow, the run is empty and at the end of the device. Absent if
  /// the system does not know.
  virtual std::optional<DataRun> dataFrom(uint64_t offset) {
    static_cast<void>(offset);
    return std::nullopt;
  }

  /// Returns the bytes in a logical block; for an image file, those that its GPT is made for. Absent if the handle does
  /// not know; disk arbitration may know then (Disk::blockSize).
  virtual std::optional<uint32_t> blockSize() { return std::nullopt; }

  /// Closes the device and releases its lock. @return 0, or -1 with `errno` set, also if it was closed before.
  virtual int close() = 0;
};

/// Opens devices.
class DeviceFile {
 public:
  virtual ~DeviceFile() = default;

  /// Opens a device, a disk-image file, or slice N of either (`<whole>s<N>`).
  ///
  /// The call never waits for a lock: it fails with EWOULDBLOCK, or the system's error for a device in use, if another
  /// process has it. Within a process, handles share the lock of a disk, except that an exclusive lock is refused while
  /// the process holds a shared one.
  ///
  /// @return the open device, or null with `errno` set: ENOENT for a slice that the disk does not have, EROFS if the
  /// device is write-protected and `access` is readWrite.
  virtual std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) = 0;
};

}  // namespace vorlix
