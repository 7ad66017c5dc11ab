// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace vorlix {

/// Opens /dev/null for reading on each of the descriptors 0 to 2 that the program's caller closed. Otherwise a file
/// opened later could get such a number, and the program's output would go into it. Call it before opening anything.
inline void fillStandardDescriptors() {
  int number = 0;
  do {
    number = open("/dev/null", O_RDONLY);
  } while (number >= 0 && number <= STDERR_FILENO);
  if (number >= 0) close(number);
}

}  // namespace vorlix
