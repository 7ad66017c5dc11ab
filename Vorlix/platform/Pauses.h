// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: waiting for a given time.
#pragma once

#include <chrono>

namespace vorlix {

/// Port: pauses of the calling thread.
class Pauses {
 public:
  virtual ~Pauses() = default;

  /// Blocks the calling thread for that time.
  virtual void pause(std::chrono::milliseconds time) = 0;
};

}  // namespace vorlix
