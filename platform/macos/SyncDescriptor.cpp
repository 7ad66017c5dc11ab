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

// The refusals of a file system or a device that has no such call, as against one that failed at it.
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
  // File systems answer F_FULLFSYNC; a disk's node has this request in its place. No range: all of the disk.
  dk_synchronize_t everything = {};
  if (ioctl(descriptor, DKIOCSYNCHRONIZE, &everything) == 0 || isUnsupported(errno)) return 0;
  return -1;
}

void forgetCached(int descriptor, uint64_t, uint64_t) {
  // From here on this descriptor's reads and writes pass by the system's memory.
  static_cast<void>(fcntl(descriptor, F_NOCACHE, 1));
}

}  // namespace vorlix
