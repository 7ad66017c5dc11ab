// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the calling thread's run loop.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace vorlix {

/// The default mode of a run loop.
inline constexpr const char* kDefaultRunLoopMode = "kCFRunLoopDefaultMode";

enum class RunLoopResult {
  noSources,      ///< the mode has no source; returned at once
  timedOut,       ///< the time passed and nothing happened
  handledSource,  ///< one source was handled
};

/// A thread's run loop. Only that thread uses it.
///
/// Sources are added by the system services that are scheduled on it (DiskArbitrationSession::schedule()); each belongs
/// to one mode and is handled only while the loop runs in that mode.
class RunLoop {
 public:
  virtual ~RunLoop() = default;

  /// Waits for the sources of `mode` and handles one. It returns as soon as one was handled, when `limit` has passed,
  /// or at once if the mode has no sources. It sleeps while it waits.
  virtual RunLoopResult run(const std::string& mode, std::chrono::milliseconds limit) = 0;
};

class RunLoops {
 public:
  virtual ~RunLoops() = default;

  /// The calling thread's loop, made on first use. Never null.
  virtual std::shared_ptr<RunLoop> current() = 0;
};

}  // namespace vorlix
