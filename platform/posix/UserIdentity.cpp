// SPDX-License-Identifier: Apache-2.0
#include "UserIdentity.h"

#include <unistd.h>

namespace vorlix {

uint32_t PosixUserIdentity::realUserID() {
  return getuid();
}

}  // namespace vorlix
