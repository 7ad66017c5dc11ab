// SPDX-License-Identifier: Apache-2.0
//
// What the EFI System Partition's unmount needs beyond the ports.
#pragma once

#include <chrono>

namespace vorlix {

/// Blocks the calling thread for a time.
using Pause = void (*)(std::chrono::milliseconds);

/// Replaces the pause of unmount_efi(), so that tests need not wait. @return the one that was in use.
Pause setPause(Pause replacement);

}  // namespace vorlix
