// SPDX-License-Identifier: Apache-2.0
//
// Sources of a run loop for code that POSIX systems share. Each system's folder implements them.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vorlix {

/// A source in the default mode of the run loop of the thread that created it. Only that thread uses it. It calls its
/// handler once, and never after it was destroyed. The handler may destroy it.
class LoopSource {
 public:
  virtual ~LoopSource() = default;

 protected:
  LoopSource() = default;
  LoopSource(const LoopSource&) = delete;
  LoopSource& operator=(const LoopSource&) = delete;
};

/// Calls the handler when the descriptor can be read without waiting, also at its end. The owner of the descriptor
/// destroys the source before closing the descriptor.
std::unique_ptr<LoopSource> watchDescriptor(int descriptor, std::function<void()> handler);

/// Calls the handler after a time, which must not be 0. Null if the system has no timer left.
std::unique_ptr<LoopSource> callAfter(std::chrono::milliseconds time, std::function<void()> handler);

}  // namespace vorlix
