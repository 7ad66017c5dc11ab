// SPDX-License-Identifier: Apache-2.0
//
// The advisory lock of a whole disk, by the published convention for block devices: flock() on the whole-disk node,
// opened for writing and closed last, never twice from one process.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <memory>
#include <string>

namespace vorlix {

/// Locks the disk at `path` without waiting. Holders in this process share one lock, except that an exclusive lock
/// fails while a shared one is held. A loop device is locked together with its backing file. Null with `errno` set on
/// failure.
std::shared_ptr<void> lockWholeDisk(const std::string& path, DeviceLock lock);

}  // namespace vorlix
