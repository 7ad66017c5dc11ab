// SPDX-License-Identifier: Apache-2.0
//
// The kernel's files: disk nodes, which this machine does not have, and the locks that open() takes on other files. The
// linker redirects these calls to this file (--wrap). Calls on other files go on to the C library.
#include <fcntl.h>
#include <sys/disk.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "System.h"
#include "platform/simulated/SimulatedState.h"

#undef stat
#undef lstat
#undef fstat

extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_close(int descriptor);
int __real_fcntl(int descriptor, int command, ...);
int __real_ioctl(int descriptor, unsigned long request, ...);
ssize_t __real_pread(int descriptor, void* to, size_t count, off_t offset);
ssize_t __real_pwrite(int descriptor, const void* from, size_t count, off_t offset);
int __real_fsync(int descriptor);
int __real_access(const char* path, int mode);
}

namespace vorlix::standin {
namespace {

struct Node {
  std::string name;  // bare, of the block node
  bool isRaw = false;
};

/// An open file on a node, shared by its descriptors.
struct OpenNode {
  Node node;
  DeviceLock lock = DeviceLock::none;
  bool writes = false;
  uint32_t blockSize = 512;
  uint64_t size = 0;
  std::shared_ptr<SimulatedState> state;
  std::unique_ptr<DeviceHandle> handle;
};

struct OpenNodes {
  std::recursive_mutex mutex;
  std::map<int, std::shared_ptr<OpenNode>> byDescriptor;
};

OpenNodes& nodes() {
  static auto* const all = new OpenNodes;
  return *all;
}

int refuse(int reason) {
  errno = reason;
  return -1;
}

std::shared_ptr<OpenNode> nodeOf(int descriptor) {
  const std::lock_guard guard(nodes().mutex);
  const auto found = nodes().byDescriptor.find(descriptor);
  return found == nodes().byDescriptor.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<OpenNode>> openOn(const std::string& name) {
  std::vector<std::shared_ptr<OpenNode>> all;
  for (const auto& [descriptor, open] : nodes().byDescriptor) {
    if (open->node.name == name && open->state == system().state) all.push_back(open);
  }
  return all;
}

std::string wholeOf(const std::string& name) {
  const auto device = system().state->devices.find(name);
  return device == system().state->devices.end() ? name : device->second.disk;
}

// While a writer without a shared lock has a whole disk open, the kernel terminates the partition scheme, and with it
// the slices and their nodes (IOMedia::handleOpen).
bool isTornDown(const std::string& name) {
  const std::string whole = wholeOf(name);
  if (whole == name) return false;
  for (const auto& open : openOn(whole)) {
    if (open->writes && open->lock != DeviceLock::shared) return true;
  }
  return false;
}

std::optional<Node> nodeAt(const char* path) {
  std::string_view name = path;
  if (!name.starts_with("/dev/")) return std::nullopt;
  name.remove_prefix(std::strlen("/dev/"));
  Node node{std::string(name), name.starts_with("rdisk")};
  if (node.isRaw) node.name.erase(0, 1);
  const std::lock_guard guard(nodes().mutex);
  if (!system().state->devices.contains(node.name) || isTornDown(node.name)) return std::nullopt;
  return node;
}

// Whether a path names a disk node, which must not reach this system's own devices.
bool isDiskName(const char* path) {
  const std::string_view name = path;
  return name.starts_with("/dev/disk") || name.starts_with("/dev/rdisk");
}

bool isSliceInUse(const std::string& whole) {
  for (const auto& [name, window] : system().state->devices) {
    if (name != whole && window.disk == whole && (isMounted(name) || !openOn(name).empty())) return true;
  }
  return false;
}

bool isLockedExclusively(const std::string& name) {
  for (const auto& open : openOn(name)) {
    if (open->lock == DeviceLock::exclusive) return true;
  }
  return false;
}

// What the storage family grants (dkopen in IOMediaBSDClient.cpp, IOMedia::handleOpen and its table of accesses): an
// exclusive lock needs a node (block and raw together) that nobody else has open, and keeps all others out. The
// partition scheme has a whole disk open, with a shared lock, while a slice of it is open
// (IOPartitionScheme::handleOpen). So an exclusive lock on the disk, or a writer of it that does not share, needs its
// slices unused, and a slice cannot be opened beside an exclusive lock on its disk.
int refusalOf(const Node& node, bool writes, DeviceLock lock) {
  const auto others = openOn(node.name);
  const auto elsewhere = system().openedElsewhere.find(node.name);
  const bool isOpenElsewhere = elsewhere != system().openedElsewhere.end();
  if (lock == DeviceLock::exclusive && (!others.empty() || isOpenElsewhere || isMounted(node.name))) return EBUSY;
  if (isOpenElsewhere && elsewhere->second == DeviceLock::exclusive) return EBUSY;
  if (isLockedExclusively(node.name) || isLockedExclusively(wholeOf(node.name))) return EBUSY;
  const bool sharesWithSlices = lock == DeviceLock::shared || (!writes && lock == DeviceLock::none);
  if (!sharesWithSlices && wholeOf(node.name) == node.name && isSliceInUse(node.name)) return EBUSY;
  return 0;
}

DeviceLock lockIn(int flags) {
  if ((flags & O_EXLOCK) != 0) return DeviceLock::exclusive;
  return (flags & O_SHLOCK) != 0 ? DeviceLock::shared : DeviceLock::none;
}

int openNode(const Node& node, int flags) {
  const std::lock_guard guard(nodes().mutex);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  const DeviceLock lock = lockIn(flags);
  if (const int reason = refusalOf(node, writes, lock)) return refuse(reason);
  auto open = std::make_shared<OpenNode>();
  open->node = node;
  open->lock = lock;
  open->writes = writes;
  open->state = system().state;
  const SimulatedWindow& window = open->state->device(node.name);
  open->blockSize = open->state->disks.at(window.disk).blockSize.value_or(512);
  open->size = window.size;
  const auto devices = makeSimulatedDeviceFile(open->state);
  const DeviceAccess access = writes ? DeviceAccess::readWrite : DeviceAccess::readOnly;
  open->handle = devices->open(node.name, access, lock);
  // A simulated lock is on the whole disk, the kernel's on the node.
  const bool isFree = open->state->disks.at(window.disk).lockedElsewhere == DeviceLock::none;
  if (!open->handle && errno == EWOULDBLOCK && isFree)
    open->handle = devices->open(node.name, access, DeviceLock::none);
  if (!open->handle) return -1;
  const int descriptor = __real_open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
  if (descriptor < 0) return -1;
  nodes().byDescriptor[descriptor] = std::move(open);
  return descriptor;
}

// open() takes the lock of flock() on a file, and waits for it without O_NONBLOCK (xnu, open1).
int openFile(const char* path, int flags, mode_t mode) {
  const int descriptor = __real_open(path, flags & ~(O_EXLOCK | O_SHLOCK), mode);
  const DeviceLock lock = lockIn(flags);
  if (descriptor < 0 || lock == DeviceLock::none) return descriptor;
  struct ::stat status = {};
  if (::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode)) {
    __real_close(descriptor);
    return refuse(EINVAL);
  }
  const int how = (lock == DeviceLock::exclusive ? LOCK_EX : LOCK_SH) | ((flags & O_NONBLOCK) != 0 ? LOCK_NB : 0);
  if (flock(descriptor, how) == 0) return descriptor;
  const int reason = errno;
  __real_close(descriptor);
  return refuse(reason);
}

// fcntl() on a node asks the disk's driver, which supports these requests only.
int controlNode(OpenNode& open, int descriptor, int command, long argument) {
  switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC: {
      const int copy = __real_fcntl(descriptor, command, argument);
      const std::lock_guard guard(nodes().mutex);
      if (copy >= 0) nodes().byDescriptor[copy] = nodes().byDescriptor[descriptor];
      return copy;
    }
    case F_GETFD:
    case F_SETFD:
      return __real_fcntl(descriptor, command, argument);
    case F_GETFL:
      return (open.writes ? O_RDWR : O_RDONLY) | O_NONBLOCK;
    case F_SETFL:      // asks the driver (FIONBIO) and gives up when it refuses (xnu, fcntl)
    case F_FULLFSYNC:  // is a file system's
      return refuse(ENOTTY);
    case F_NOCACHE:  // is the open file's own
      ++system().uncachedDescriptors;
      return 0;
    default:
      return refuse(EINVAL);
  }
}

int askNode(OpenNode& open, unsigned long request, void* answer) {
  switch (request) {
    case DKIOCGETBLOCKSIZE:
      std::memcpy(answer, &open.blockSize, sizeof open.blockSize);
      return 0;
    case DKIOCGETBLOCKCOUNT: {
      const uint64_t count = open.size / open.blockSize;
      std::memcpy(answer, &count, sizeof count);
      return 0;
    }
    case DKIOCSYNCHRONIZE:
      return system().cannotFlush ? refuse(ENOTTY) : open.handle->sync();
    default:
      return refuse(ENOTTY);
  }
}

// Raw nodes transfer whole blocks only. A read at the end returns 0, a write there fails (dkreadwrite).
int transferRefusal(const OpenNode& open, size_t count, off_t offset, bool isWrite) {
  if (offset < 0) return EINVAL;
  if (isWrite && !open.writes) return EBADF;
  const auto start = static_cast<uint64_t>(offset);
  if (start >= open.size) return isWrite ? EIO : 0;
  if (open.node.isRaw && (count == 0 || start % open.blockSize != 0 || count % open.blockSize != 0)) return EINVAL;
  return 0;
}

void fill(struct standin_stat& to, const struct ::stat& from) {
  to = {};
  to.st_dev = from.st_dev;
  to.st_mode = from.st_mode;
  to.st_nlink = from.st_nlink;
  to.st_ino = from.st_ino;
  to.st_uid = from.st_uid;
  to.st_gid = from.st_gid;
  to.st_rdev = from.st_rdev;
  to.st_atimespec = from.st_atim;
  to.st_mtimespec = from.st_mtim;
  to.st_ctimespec = from.st_ctim;
  to.st_size = from.st_size;
  to.st_blocks = from.st_blocks;
  to.st_blksize = from.st_blksize;
}

void addBirth(struct standin_stat& to, int descriptor, const char* path, int flags) {
  struct statx extended = {};
  if (statx(descriptor, path, flags, STATX_BTIME, &extended) != 0) return;
  to.st_birthtimespec = {extended.stx_btime.tv_sec, static_cast<long>(extended.stx_btime.tv_nsec)};
}

// Both nodes of a disk have its number.
dev_t numberOf(const std::string& name) {
  const auto& devices = system().state->devices;
  return makedev(1, static_cast<unsigned>(std::distance(devices.begin(), devices.find(name))));
}

void fillNode(struct standin_stat& to, const Node& node) {
  to = {};
  to.st_mode = (node.isRaw ? S_IFCHR : S_IFBLK) | 0640;
  to.st_rdev = numberOf(node.name);
  to.st_ino = 1000 + to.st_rdev;
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix::standin;  // NOLINT: the system's names are global

extern "C" {

int __wrap_open(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  if (const auto node = nodeAt(path)) return openNode(*node, flags);
  if (isDiskName(path)) return refuse(ENOENT);
  return openFile(path, flags, mode);
}

int __wrap_close(int descriptor) {
  std::shared_ptr<OpenNode> last;
  {
    const std::lock_guard guard(nodes().mutex);
    const auto found = nodes().byDescriptor.find(descriptor);
    if (found != nodes().byDescriptor.end()) {
      last = std::move(found->second);
      nodes().byDescriptor.erase(found);
    }
  }
  const int result = __real_close(descriptor);
  if (!last || last.use_count() > 1) return result;
  return last->handle->close();
}

int __wrap_fcntl(int descriptor, int command, ...) {
  va_list list;
  va_start(list, command);
  const long argument = va_arg(list, long);
  va_end(list);
  if (const auto open = nodeOf(descriptor)) return controlNode(*open, descriptor, command, argument);
  if (command == F_FULLFSYNC) return __real_fsync(descriptor);
  if (command == F_NOCACHE) {
    ++vorlix::standin::system().uncachedDescriptors;
    return 0;
  }
  return __real_fcntl(descriptor, command, argument);
}

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  if (const auto open = nodeOf(descriptor)) return askNode(*open, request, argument);
  return __real_ioctl(descriptor, request, argument);
}

ssize_t __wrap_pread(int descriptor, void* to, size_t count, off_t offset) {
  const auto open = nodeOf(descriptor);
  if (!open) return __real_pread(descriptor, to, count, offset);
  if (const int reason = transferRefusal(*open, count, offset, false)) return refuse(reason);
  return open->handle->readAt(to, count, static_cast<uint64_t>(offset));
}

ssize_t __wrap_pwrite(int descriptor, const void* from, size_t count, off_t offset) {
  const auto open = nodeOf(descriptor);
  if (!open) return __real_pwrite(descriptor, from, count, offset);
  if (const int reason = transferRefusal(*open, count, offset, true)) return refuse(reason);
  return open->handle->writeAt(from, count, static_cast<uint64_t>(offset));
}

int __wrap_fsync(int descriptor) {
  return nodeOf(descriptor) ? 0 : __real_fsync(descriptor);
}

int __wrap_access(const char* path, int mode) {
  return nodeAt(path) ? 0 : __real_access(path, mode);
}

int standin_stat(const char* path, struct standin_stat* status) {
  if (const auto node = nodeAt(path)) {
    fillNode(*status, *node);
    return 0;
  }
  if (isDiskName(path)) return refuse(ENOENT);
  struct ::stat real = {};
  if (::stat(path, &real) != 0) return -1;
  fill(*status, real);
  addBirth(*status, AT_FDCWD, path, 0);
  return 0;
}

int standin_lstat(const char* path, struct standin_stat* status) {
  if (nodeAt(path) || isDiskName(path)) return standin_stat(path, status);
  struct ::stat real = {};
  if (::lstat(path, &real) != 0) return -1;
  fill(*status, real);
  addBirth(*status, AT_FDCWD, path, AT_SYMLINK_NOFOLLOW);
  return 0;
}

int standin_fstat(int descriptor, struct standin_stat* status) {
  if (const auto open = nodeOf(descriptor)) {
    fillNode(*status, open->node);
    return 0;
  }
  struct ::stat real = {};
  if (::fstat(descriptor, &real) != 0) return -1;
  fill(*status, real);
  addBirth(*status, descriptor, "", AT_EMPTY_PATH);
  return 0;
}

char* devname(dev_t device, mode_t type) {
  thread_local std::string name;
  for (const auto& entry : vorlix::standin::system().state->devices) {
    if (numberOf(entry.first) != device) continue;
    name = (S_ISCHR(type) ? "r" : "") + entry.first;
    return name.data();
  }
  return nullptr;
}

}  // extern "C"
