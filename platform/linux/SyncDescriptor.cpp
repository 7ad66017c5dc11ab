// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include "platform/posix/DescriptorCalls.h"

namespace vorlix {

int syncDescriptor(int descriptor) {
  return fsync(descriptor);
}

int syncContent(int descriptor) {
  return fdatasync(descriptor);
}

void startWriting(int descriptor, uint64_t offset, uint64_t count) {
  // With this flag alone, an error of the medium stays for fsync() to tell.
  static_cast<void>(
      sync_file_range(descriptor, static_cast<off_t>(offset), static_cast<off_t>(count), SYNC_FILE_RANGE_WRITE));
}

void forgetCached(int descriptor, uint64_t offset, uint64_t count) {
  // The kernel drops only clean data, so this must follow a sync. It drops only whole pages.
  constexpr uint64_t kPage = 64 * 1024;
  const uint64_t from = offset - offset % kPage;
  const uint64_t end = (offset + count + kPage - 1) / kPage * kPage;
  static_cast<void>(
      posix_fadvise(descriptor, static_cast<off_t>(from), static_cast<off_t>(end - from), POSIX_FADV_DONTNEED));
}

}  // namespace vorlix
