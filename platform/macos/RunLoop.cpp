// SPDX-License-Identifier: Apache-2.0
#include "RunLoop.h"

#include <algorithm>

#include "CFValue.h"

namespace vorlix {
namespace {

CFOwned<CFRunLoopRef> retained(CFRunLoopRef loop) {
  CFRetain(loop);
  return CFOwned<CFRunLoopRef>(loop);
}

}  // namespace

RunLoopResult MacRunLoop::run(const std::string& mode, std::chrono::milliseconds limit) {
  const CFOwned<CFStringRef> name = stringToCF(mode);
  if (!name) return RunLoopResult::noSources;  // not UTF-8, so not the name of a mode
  const std::chrono::duration<CFTimeInterval> seconds = std::max(limit, std::chrono::milliseconds(0));
  switch (CFRunLoopRunInMode(name.get(), seconds.count(), true)) {
    case kCFRunLoopRunFinished:
      return RunLoopResult::noSources;
    case kCFRunLoopRunHandledSource:
      return RunLoopResult::handledSource;
    case kCFRunLoopRunTimedOut:
    case kCFRunLoopRunStopped:  // by other code of the host; the caller runs the loop again
      return RunLoopResult::timedOut;
  }
  return RunLoopResult::timedOut;
}

std::shared_ptr<RunLoop> MacRunLoops::current() {
  thread_local const auto loop = std::make_shared<MacRunLoop>(retained(CFRunLoopGetCurrent()));
  return loop;
}

}  // namespace vorlix
