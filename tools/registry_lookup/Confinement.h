// SPDX-License-Identifier: Apache-2.0
//
// Anybody may have written the volume that a hive comes from. The parser runs in a child process with limits, so that
// a hostile hive causes an error message at worst.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace vorlix::registry {

/// Runs `job` in a child process and returns its text.
///
/// The child has 10 seconds of processor time, or less if this process has less, and `addressSpace` bytes of address
/// space. It leaves no core file. Its output is discarded. A build with sanitizers neither limits the address space
/// nor discards the output.
/// @throws Failure  if the job throws an exception, runs out of memory or processor time, or crashes.
std::string runConfined(uint64_t addressSpace, const std::function<std::string()>& job);

}  // namespace vorlix::registry
