// SPDX-License-Identifier: Apache-2.0
//
// Shared by the tests of device files: reading, and checks of calls that must not block.
#pragma once

#include <chrono>

#include "DeviceWorlds.h"

namespace vorlix::contract {

inline Buffer readFrom(DeviceHandle& device, uint64_t offset, size_t count) {
  Buffer bytes(count);
  const ssize_t done = device.readAt(bytes.data(), count, offset);
  if (done < 0) throw std::runtime_error(std::strerror(errno));
  bytes.resize(static_cast<size_t>(done));
  return bytes;
}

/// Fails the test if a call takes longer than a call that does not block.
class PromptnessCheck {
 public:
  ~PromptnessCheck() {
    const auto passed = std::chrono::steady_clock::now() - start_;
    EXPECT_LT(passed, std::chrono::seconds(5)) << "the call blocked";
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Ends the process if a call blocks forever. The signal appears in the test's report.
class HangGuard {
 public:
  HangGuard() { alarm(60); }
  ~HangGuard() { alarm(0); }
};

}  // namespace vorlix::contract
