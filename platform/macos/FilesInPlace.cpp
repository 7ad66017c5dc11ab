// SPDX-License-Identifier: Apache-2.0
#include "FilesInPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/posix/DescriptorCalls.h"

namespace vorlix {

int MacFilesInPlace::sync(int descriptor) {
  return syncDescriptor(descriptor);
}

void MacFilesInPlace::forgetCached(int descriptor, uint64_t offset, uint64_t count) {
  vorlix::forgetCached(descriptor, offset, count);
}

int MacFilesInPlace::renameToFreeName(const char* from, const char* to) {
  return renamex_np(from, to, RENAME_EXCL);
}

int MacFilesInPlace::syncFileSystem(int descriptor) {
  ::sync();  // starts writing; the next call waits until this volume's data is written
  return syncDescriptor(descriptor);
}

}  // namespace vorlix
