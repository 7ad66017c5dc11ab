// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/FilesInPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/posix/FileHandle.h"

namespace vorlix {

int renameToFreeName(const char* from, const char* to) {
  return renamex_np(from, to, RENAME_EXCL);
}

int syncFileSystem(int descriptor) {
  sync();  // starts all that is waiting; the next call waits for this volume's
  return syncDescriptor(descriptor);
}

}  // namespace vorlix
