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

enum class DeviceAccess { readOnly, readWrite };

/// Advisory lock against other processes. Where the system has no lock of its own for device nodes it lies on the whole
/// disk, also where a slice is opened; macOS locks the node that is opened.
enum class DeviceLock { none, shared, exclusive };

/// Tells an open device from every other one, whatever name it was opened by and whatever lies under that name now.
struct DeviceIdentity {
  /// The whole disk or image file, in words of the system's that people need not understand: equal for all handles onto
  /// one disk, for as long as it stays attached or the file lives.
  std::string disk;
  /// Bytes from the start of that disk to what was opened. Absent where the system does not tell.
  std::optional<uint64_t> offset;

  friend bool operator==(const DeviceIdentity&, const DeviceIdentity&) = default;
};

/// A run of bytes of an open device.
struct DataRun {
  uint64_t offset = 0;
  uint64_t size = 0;
};

/// An open device. Offsets count from the start of what was opened: of the slice, where that is a slice.
///
/// One thread at a time uses a handle. Destroying it closes it.
class DeviceHandle {
 public:
  virtual ~DeviceHandle() = default;

  /// Reads up to `count` bytes at `offset`. @return the bytes read, fewer only where the device ends (0 at its end), or
  /// -1 with `errno` set.
  virtual ssize_t readAt(void* buffer, size_t count, uint64_t offset) = 0;

  /// Writes `count` bytes at `offset`. A slice is never written past its end. @return the bytes written, fewer only
  /// where the device ends, or -1 with `errno` set.
  virtual ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) = 0;

  /// Brings what was written to the medium. @return 0, or -1 with `errno` set.
  virtual int sync() = 0;

  /// Reads like readAt() what sync() has brought to the medium, and not a copy of it that the system keeps in memory,
  /// as far as the system lets a program ask for that.
  virtual ssize_t readMediumAt(void* buffer, size_t count, uint64_t offset) { return readAt(buffer, count, offset); }

  /// Absent when the system cannot tell.
  virtual std::optional<DeviceIdentity> identity() { return std::nullopt; }

  /// Size in bytes; absent when the system cannot tell.
  virtual std::optional<uint64_t> size() = 0;

  /// The first run of bytes at or behind `offset` that the system stores. What lies between `offset` and the run reads
  /// as zeros, as in a sparse file; where nothing but zeros follows, the run is empty and at the device's end. Absent
  /// where the system does not tell.
  virtual std::optional<DataRun> dataFrom(uint64_t offset) {
    static_cast<void>(offset);
    return std::nullopt;
  }

  /// Bytes of a logical block, of an image file those that its GPT is made for. Absent where the handle does not know;
  /// disk arbitration then may (Disk::blockSize).
  virtual std::optional<uint32_t> blockSize() { return std::nullopt; }

  /// Closes the device and releases its lock. @return 0, or -1 with `errno` set, also when it was closed before.
  virtual int close() = 0;
};

class DeviceFile {
 public:
  virtual ~DeviceFile() = default;

  /// Opens a device, a disk-image file, or slice N of either (`<whole>s<N>`).
  ///
  /// A lock that cannot be had at once fails the call with EWOULDBLOCK (or what the system says of a device in use); no
  /// call waits for one. A process that already holds the lock of a disk shares it with itself; only an exclusive lock
  /// where it holds a shared one is refused.
  ///
  /// @return the open device, or null with `errno` set: ENOENT for a slice that the disk does not have, EROFS for
  /// writing to a write-protected one.
  virtual std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) = 0;
};

}  // namespace vorlix
