// SPDX-License-Identifier: Apache-2.0
#include "LockedDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

// Closes the descriptor and keeps `errno`.
int giveUp(int descriptor) {
  const int reason = errno;
  close(descriptor);
  errno = reason;
  return -1;
}

class HeldFile {
 public:
  HeldFile(int descriptor, DeviceAccess access, DeviceLock lock)
      : descriptor_(descriptor), access_(access), lock_(lock) {}
  ~HeldFile() { close(descriptor_); }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

  bool covers(DeviceLock wanted) const { return lock_ == DeviceLock::exclusive || wanted != DeviceLock::exclusive; }
  bool isFor(DeviceAccess wanted) const { return access_ == wanted; }
  bool allows(DeviceAccess wanted) const { return access_ == DeviceAccess::readWrite || isFor(wanted); }
  int duplicate() const { return fcntl(descriptor_, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); }

 private:
  int descriptor_;
  DeviceAccess access_;
  DeviceLock lock_;
};

using FileKey = std::tuple<mode_t, dev_t, ino_t>;

FileKey keyOf(const struct stat& status) {
  const auto kind = static_cast<mode_t>(status.st_mode & S_IFMT);
  if (kind == S_IFREG) return {kind, status.st_dev, status.st_ino};
  return {kind, status.st_rdev, 0};
}

struct HeldFiles {
  std::mutex mutex;
  std::map<FileKey, std::weak_ptr<HeldFile>> files;
};

HeldFiles& heldFiles() {
  static auto* const instance = new HeldFiles;  // outlives every handle
  return *instance;
}

// Returns the open file that this process has locked; null if there is none. The caller holds the mutex.
std::shared_ptr<HeldFile> heldFile(const struct stat& status) {
  const auto found = heldFiles().files.find(keyOf(status));
  return found == heldFiles().files.end() ? nullptr : found->second.lock();
}

// O_NONBLOCK keeps open() from waiting for a lock, and is cleared afterwards. A node keeps the flag: to clear it, the
// system asks the disk's driver, which refuses (ENOTTY). The driver ignores the flag in transfers.
int openAtOnce(const std::string& path, DeviceAccess access, DeviceLock lock) {
  int flags = O_CLOEXEC | O_NONBLOCK;
  flags |= access == DeviceAccess::readWrite ? O_RDWR : O_RDONLY;
  if (lock == DeviceLock::exclusive) flags |= O_EXLOCK;
  if (lock == DeviceLock::shared) flags |= O_SHLOCK;
  const int descriptor = aboveStandardStreams(open(path.c_str(), flags));
  if (descriptor < 0) return -1;
  struct stat opened = {};
  if (fstat(descriptor, &opened) != 0) return giveUp(descriptor);
  if (!S_ISREG(opened.st_mode)) return descriptor;
  const int status = fcntl(descriptor, F_GETFL);
  if (status < 0 || fcntl(descriptor, F_SETFL, status & ~O_NONBLOCK) != 0) return giveUp(descriptor);
  return descriptor;
}

// Opens without a lock. If this process's own lock keeps the opening out, shares the locked open file.
int openBeside(const HeldFile* held, const std::string& path, DeviceAccess access) {
  const int descriptor = openAtOnce(path, access, DeviceLock::none);
  if (descriptor >= 0 || errno != EBUSY || held == nullptr || !held->allows(access)) return descriptor;
  return held->duplicate();
}

LockedDescriptor shareHeld(std::shared_ptr<HeldFile> held, const std::string& path, DeviceAccess access,
                           DeviceLock lock) {
  if (!held->covers(lock)) {
    errno = EWOULDBLOCK;
    return {};
  }
  const int descriptor = held->isFor(access) ? held->duplicate() : openBeside(held.get(), path, access);
  if (descriptor < 0) return {};
  return {descriptor, std::move(held)};
}

}  // namespace

LockedDescriptor openWithLock(const std::string& path, DeviceAccess access, DeviceLock lock) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  HeldFiles& held = heldFiles();
  const std::lock_guard guard(held.mutex);
  const std::shared_ptr<HeldFile> mine = heldFile(status);
  if (lock == DeviceLock::none) return {openBeside(mine.get(), path, access), nullptr};
  if (mine) return shareHeld(mine, path, access, lock);

  const int descriptor = openAtOnce(path, access, lock);
  if (descriptor < 0) return {};
  auto file = std::make_shared<HeldFile>(descriptor, access, lock);
  if (fstat(descriptor, &status) != 0) return {};
  const int own = file->duplicate();
  if (own < 0) return {};
  held.files[keyOf(status)] = file;
  return {own, std::move(file)};
}

LockedDescriptor shareLocked(const std::string& path, DeviceAccess access, DeviceLock lock) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  const std::lock_guard guard(heldFiles().mutex);
  const std::shared_ptr<HeldFile> mine = heldFile(status);
  if (!mine) {
    errno = ENOENT;
    return {};
  }
  if (!mine->covers(lock) || !mine->allows(access)) {
    errno = mine->covers(lock) ? EBUSY : EWOULDBLOCK;
    return {};
  }
  const int descriptor = mine->duplicate();
  if (descriptor < 0) return {};
  return {descriptor, mine};
}

}  // namespace vorlix
