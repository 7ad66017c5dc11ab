// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include <Vorlix/platform/SliceName.h>
#include "platform/posix/DescriptorCalls.h"

namespace vorlix {

std::optional<DeviceIdentity> identityOf(int descriptor, uint64_t offset) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) {
    return DeviceIdentity{"file " + std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) + " " +
                              std::to_string(status.st_birthtimespec.tv_sec) + "." +
                              std::to_string(status.st_birthtimespec.tv_nsec),
                          offset};
  }
  // The raw node and the block node of a disk have the same number.
  const char* const node = devname(status.st_rdev, S_IFBLK);
  if (node == nullptr) return std::nullopt;
  const std::optional<SliceName> slice = parseSliceName(node);
  if (slice) return DeviceIdentity{"node " + slice->whole, std::nullopt};
  return DeviceIdentity{"node " + std::string(node), offset};
}

}  // namespace vorlix
