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

/// Why a run of the loop has ended.
enum class RunLoopResult {
  noSources,      ///< the mode has no source; the call returned at once
  timedOut,       ///< nothing happened within the time limit
  handledSource,  ///< one source was handled
};

/// A thread's run loop. Only that thread uses it.
///
/// System services that are scheduled on the loop add sources (DiskArbitrationSession::schedule()). Each source belongs
/// to one mode and is handled only while the loop runs in that mode.
class RunLoop {
 public:
  virtual ~RunLoop() = default;

  /// Waits for the sources of `mode` and handles one. Returns as soon as one was handled, after `limit`, or at once if
  /// the mode has no sources. Sleeps while waiting.
  virtual RunLoopResult run(const std::string& mode, std::chrono::milliseconds limit) = 0;
};

/// Port: the run loops of threads.
class RunLoops {
 public:
  virtual ~RunLoops() = default;

  /// Returns the calling thread's loop, which is created on first use. Never null.
  virtual std::shared_ptr<RunLoop> current() = 0;
};

}  // namespace vorlix
