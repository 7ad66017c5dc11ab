// SPDX-License-Identifier: Apache-2.0
#include "FilesInPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/posix/DescriptorCalls.h"

namespace vorlix {

int LinuxFilesInPlace::sync(int descriptor) {
  return syncDescriptor(descriptor);
}

void LinuxFilesInPlace::forgetCached(int descriptor, uint64_t offset, uint64_t count) {
  vorlix::forgetCached(descriptor, offset, count);
}

int LinuxFilesInPlace::renameToFreeName(const char* from, const char* to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

int LinuxFilesInPlace::syncFileSystem(int descriptor) {
  return syncfs(descriptor);
}

}  // namespace vorlix
