// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace vorlix {

/// Descriptors 0 to 2 that the caller closed are filled with what cannot be written to, so that no other file gets
/// their numbers and with them what is printed. To be called before anything is opened.
inline void fillStandardDescriptors() {
  int number = 0;
  do {
    number = open("/dev/null", O_RDONLY);
  } while (number >= 0 && number <= STDERR_FILENO);
  if (number >= 0) close(number);
}

}  // namespace vorlix
