// SPDX-License-Identifier: Apache-2.0
#include "DiskLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>

#include <Vorlix/platform/Descriptor.h>
#include "VolumeOrigin.h"

namespace vorlix {
namespace {

class Lock {
 public:
  Lock(int descriptor, bool exclusive) : descriptor_(descriptor), exclusive_(exclusive) {}
  ~Lock() { close(descriptor_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  bool covers(DeviceLock wanted) const { return exclusive_ || wanted == DeviceLock::shared; }

 private:
  int descriptor_;
  bool exclusive_;
};

using DiskKey = std::tuple<bool, dev_t, ino_t>;

DiskKey keyOf(const struct stat& status) {
  if (S_ISBLK(status.st_mode)) return {true, status.st_rdev, 0};
  return {false, status.st_dev, status.st_ino};
}

struct HeldLocks {
  std::mutex mutex;
  std::map<DiskKey, std::weak_ptr<Lock>> locks;
};

HeldLocks& heldLocks() {
  static auto* const instance = new HeldLocks;  // outlives every handle
  return *instance;
}

// A loop device and its file have the same bytes, so both are locked.
struct LockedBoth {
  std::shared_ptr<Lock> device;
  std::shared_ptr<Lock> file;
};

std::shared_ptr<Lock> lockOne(HeldLocks& held, const std::string& path, const struct stat& status, DeviceLock lock) {
  std::weak_ptr<Lock>& slot = held.locks[keyOf(status)];
  if (std::shared_ptr<Lock> mine = slot.lock()) {
    if (mine->covers(lock)) return mine;
    errno = EWOULDBLOCK;
    return nullptr;
  }
  const bool exclusive = lock == DeviceLock::exclusive;
  int descriptor = aboveStandardStreams(open(path.c_str(), O_RDWR | O_CLOEXEC));
  const bool cannotBeWritten = descriptor < 0 && (errno == EACCES || errno == EPERM || errno == EROFS);
  // Readers may lock a disk that they can only read.
  if (cannotBeWritten && !exclusive) descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  if (flock(descriptor, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
    const int reason = errno;
    close(descriptor);
    errno = reason;
    return nullptr;
  }
  auto mine = std::make_shared<Lock>(descriptor, exclusive);
  slot = mine;
  return mine;
}

}  // namespace

std::shared_ptr<void> lockWholeDisk(const std::string& path, DeviceLock lock) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return nullptr;
  HeldLocks& held = heldLocks();
  const std::lock_guard guard(held.mutex);
  const std::shared_ptr<Lock> device = lockOne(held, path, status, lock);
  const bool isBlockDevice = device && S_ISBLK(status.st_mode);
  const std::optional<std::string> file = isBlockDevice ? backingPathOf(status.st_rdev) : std::nullopt;
  if (!file || stat(file->c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return device;
  const std::shared_ptr<Lock> behind = lockOne(held, *file, status, lock);
  if (behind) return std::make_shared<LockedBoth>(LockedBoth{device, behind});
  // If this user cannot open the file, the lock on the device must do.
  return errno == EWOULDBLOCK ? nullptr : device;
}

}  // namespace vorlix
