// SPDX-License-Identifier: Apache-2.0
//
// Sources of a run loop for what POSIX systems share; each system has its own behind them.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vorlix {

/// A source in the default mode of the loop of the thread that made it, which alone uses it. It calls its handler once,
/// and not at all after the end of its life, which the handler may bring about.
class LoopSource {
 public:
  virtual ~LoopSource() = default;

 protected:
  LoopSource() = default;
  LoopSource(const LoopSource&) = delete;
  LoopSource& operator=(const LoopSource&) = delete;
};

/// Calls when the descriptor can be read without waiting, its end included. The descriptor stays its owner's, who ends
/// the source before closing it.
std::unique_ptr<LoopSource> watchDescriptor(int descriptor, std::function<void()> handler);

/// Calls when a time, which is not 0, has passed. Null when the system has no timer left.
std::unique_ptr<LoopSource> callAfter(std::chrono::milliseconds time, std::function<void()> handler);

}  // namespace vorlix
