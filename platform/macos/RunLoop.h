// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/RunLoop.h>

#include "CFOwned.h"

namespace vorlix {

/// The native run loop of a thread.
class MacRunLoop final : public RunLoop {
 public:
  explicit MacRunLoop(CFOwned<CFRunLoopRef> loop) : loop_(std::move(loop)) {}

  /// Must be called on the loop's own thread; the native call runs the calling thread's loop.
  RunLoopResult run(const std::string& mode, std::chrono::milliseconds limit) override;

  CFRunLoopRef native() const { return loop_.get(); }

 private:
  CFOwned<CFRunLoopRef> loop_;
};

class MacRunLoops final : public RunLoops {
 public:
  std::shared_ptr<RunLoop> current() override;
};

}  // namespace vorlix
