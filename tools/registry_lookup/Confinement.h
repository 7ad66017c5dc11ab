// SPDX-License-Identifier: Apache-2.0
//
// Hives come from volumes that anybody may have written. The parser works in a process of its own, with limits, so that
// the worst that a hive can do to it ends in a message.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace vorlix::registry {

/// Runs `job` in a child process and returns its text.
///
/// The child has 10 seconds of processor time, and less if this process has; `addressSpace` bytes of addresses, but for
/// builds with sanitizers; it leaves no core file, and what it prints is dropped.
/// @throws Failure  when the job threw one, ran out of memory or time, or its process crashed.
std::string runConfined(uint64_t addressSpace, const std::function<std::string()>& job);

}  // namespace vorlix::registry
