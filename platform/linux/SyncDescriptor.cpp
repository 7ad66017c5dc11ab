// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "../posix/FileHandle.h"

namespace vorlix {

int syncDescriptor(int descriptor) {
  return fsync(descriptor);
}

}  // namespace vorlix
