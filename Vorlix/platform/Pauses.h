// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: letting time pass.
#pragma once

#include <chrono>

namespace vorlix {

class Pauses {
 public:
  virtual ~Pauses() = default;

  /// Blocks the calling thread for a time.
  virtual void pause(std::chrono::milliseconds time) = 0;
};

}  // namespace vorlix
