// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: running other programs.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vorlix {

/// The shortest time between two empty chunks from one pipe.
inline constexpr std::chrono::milliseconds kEndedReadInterval{100};

/// The read end of a pipe that a child writes to. Only one thread uses it.
class ChildOutput {
 public:
  /// Receives what was read; an empty chunk is the end of the stream.
  using Completion = std::function<void(const Data& chunk)>;

  virtual ~ChildOutput() = default;

  /// Waits until something can be read and returns it. Returns an empty chunk at the end: when the child, the processes
  /// that it started and a handle whose child was not launched have all closed the other end of the pipe.
  virtual Data read() = 0;

  /// Returns what can be read now, without waiting. Empty if nothing can be read yet, and at the end.
  virtual Data readAvailable() = 0;

  /// Begins a read that the run loop of the calling thread completes, once, while it runs in the default mode: with a
  /// chunk as soon as something can be read, or with an empty chunk at the end. It replaces a pending read.
  ///
  /// At the end, every further read also completes with an empty chunk, but only after kEndedReadInterval, so that a
  /// caller that always begins the next read does not keep the processor busy. Such a read never completes if the
  /// system has no timer left.
  ///
  /// The completion may begin the next read, run the loop and release this object. Destroying this object cancels a
  /// pending read.
  virtual void readInBackground(Completion completion) = 0;

  /// Cancels a pending read, which then does not complete. Does nothing if none is pending.
  virtual void cancelBackgroundRead() = 0;
};

/// The handle of one child process.
///
/// Destroying the handle closes the standard-input pipe and does nothing else to a child that is still running. The
/// system's record of an ended child is released when its status is asked for or its handle is destroyed. For a child
/// that ends later, it is released when the process next launches a child or destroys a handle.
class Child {
 public:
  virtual ~Child() = default;

  /// Returns the read end of standard output. It may outlive this handle.
  virtual std::shared_ptr<ChildOutput> standardOutput() = 0;

  /// Returns the read end of standard error: that of standard output if both share a pipe.
  virtual std::shared_ptr<ChildOutput> standardError() = 0;

  /// Starts the program. A handle can do this once. The program gets its path and the arguments, the host's environment
  /// and working folder, the three standard streams and no other descriptor. No signal is blocked, and each has its
  /// default action. The host's own signal mask and handlers do not change.
  /// @param path  the executable. There is no search path and no shell.
  /// @throws std::system_error  if the program cannot be started. The pipes stay open until the handle is destroyed.
  virtual void launch(const std::string& path, const std::vector<std::string>& arguments) = 0;

  /// Returns whether the program was launched and has not ended. Any thread may call this.
  virtual bool isRunning() = 0;

  /// Returns the exit status, 0 to 255, or the number of the signal that ended the program. Returns 0 while it runs or
  /// if it was not launched, and -1 if other code of the host has taken the status from the system. Any thread may call
  /// this.
  virtual int32_t terminationStatus() = 0;

  /// Asks the program to end (SIGTERM). It may end later or not at all; the processes that it started get no signal.
  /// Does nothing if the program is not running. A program whose standard output was read to the end usually exits by
  /// itself: it gets 100 ms for that before the signal, so that it keeps its exit status. Any thread may call this.
  virtual void terminate() = 0;
};

/// Which pipes the two outputs of a child use.
enum class ChildOutputs {
  separate,     ///< one pipe each
  errorUnread,  ///< one pipe each, and nobody reads standard error: the child's writes fail when that pipe is full
  shared,       ///< one pipe for both, in the order in which the child writes
};

/// Where a child's standard input comes from.
enum class ChildInput {
  pipe,       ///< a pipe that is never written to; it ends when the handle is destroyed
  inherited,  ///< the host's own input
};

/// Port: launches programs.
class ChildProcess {
 public:
  virtual ~ChildProcess() = default;

  /// Returns a handle with pipes and no process yet. Never null.
  /// @throws std::system_error  if the pipes cannot be made.
  virtual std::shared_ptr<Child> create(ChildOutputs outputs, ChildInput input) = 0;
};

}  // namespace vorlix
