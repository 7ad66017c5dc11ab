// SPDX-License-Identifier: Apache-2.0
#include "Pauses.h"

#include <thread>

namespace vorlix {

void PosixPauses::pause(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

}  // namespace vorlix
