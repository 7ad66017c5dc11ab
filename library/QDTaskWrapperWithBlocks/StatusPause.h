// SPDX-License-Identifier: Apache-2.0
//
// The time that QDTaskWrapperWithBlocks gives a running process before it tells its status.
#pragma once

#include <chrono>

namespace vorlix {

/// Blocks the calling thread for a time.
using StatusPause = void (*)(std::chrono::milliseconds);

/// Replaces the pause of terminationStatus(), so that tests need not wait. @return the one that was in use.
StatusPause setStatusPause(StatusPause replacement);

}  // namespace vorlix
