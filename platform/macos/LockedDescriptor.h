// SPDX-License-Identifier: Apache-2.0
//
// Descriptors with the lock that macOS takes at open().
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <memory>
#include <string>

namespace vorlix {

/// An open descriptor and the lock that goes with it.
struct LockedDescriptor {
  int descriptor = -1;         ///< the caller closes it; -1 on failure
  std::shared_ptr<void> lock;  ///< the caller releases it after closing the descriptor; null without a lock
};

/// Opens the node or the file at `path` without waiting, for a lock or for the device.
///
/// O_EXLOCK and O_SHLOCK lock a file as flock() does. On a disk's node they are also the access that the storage system
/// grants, and an exclusive one keeps out every other opening (EBUSY), even by this process. So a process that holds
/// the lock of a node or file shares its open file with itself, unless it holds a shared lock and asks for an exclusive
/// one. The lock lasts as long as anyone shares that file. A read-only opening may have to share a file that is open
/// for writing; then the descriptor itself does not keep its caller from writing.
///
/// @return the descriptor, or -1 with `errno` set: EWOULDBLOCK or EBUSY for a lock that cannot be had.
LockedDescriptor openWithLock(const std::string& path, DeviceAccess access, DeviceLock lock);

/// Shares the open file of the node at `path`, which this process has locked. Opens nothing.
///
/// @return the descriptor, or -1 with `errno` set: ENOENT if this process holds no lock of that node, EWOULDBLOCK if it
/// holds a shared one and `lock` is exclusive, EBUSY if it opened the node for reading only and `access` is for
/// writing.
LockedDescriptor shareLocked(const std::string& path, DeviceAccess access, DeviceLock lock);

}  // namespace vorlix
