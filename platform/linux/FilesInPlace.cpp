// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/FilesInPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace vorlix {

int renameToFreeName(const char* from, const char* to) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

int syncFileSystem(int descriptor) {
  return syncfs(descriptor);
}

}  // namespace vorlix
