// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/disk.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/DescriptorCalls.h"

namespace vorlix {
namespace {

// Whether the file system or the device does not support the request, as opposed to failing at it.
bool isUnsupported(int error) {
  return error == ENOTTY || error == ENOTSUP || error == EOPNOTSUPP || error == EINVAL;
}

}  // namespace

int syncDescriptor(int descriptor) {
  // fsync() alone leaves the data in the drive's cache.
  if (fcntl(descriptor, F_FULLFSYNC) == 0) return 0;
  if (!isUnsupported(errno) || fsync(descriptor) != 0) return -1;
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) return 0;
  // A disk's node has this request instead of F_FULLFSYNC. Without a range it means the whole disk.
  dk_synchronize_t everything = {};
  if (ioctl(descriptor, DKIOCSYNCHRONIZE, &everything) == 0 || isUnsupported(errno)) return 0;
  return -1;
}

int syncContent(int descriptor) {
  return syncDescriptor(descriptor);
}

void startWriting(int, uint64_t, uint64_t) {}  // the system has no call for that

void forgetCached(int descriptor, uint64_t, uint64_t) {
  // From now on this descriptor's reads and writes bypass the system's cache.
  static_cast<void>(fcntl(descriptor, F_NOCACHE, 1));
}

}  // namespace vorlix
