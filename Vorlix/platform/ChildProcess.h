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

/// The least time between two empty chunks of one pipe.
inline constexpr std::chrono::milliseconds kEndedReadInterval{100};

/// The read end of a pipe that a child writes to. Only the thread that reads it uses it.
class ChildOutput {
 public:
  using Completion = std::function<void(const Data& chunk)>;

  virtual ~ChildOutput() = default;

  /// Waits until there is something to read and takes what is there. Empty at the end, that is when nobody has the
  /// pipe's other end open any more: the child, those it started, and a handle whose child was not launched.
  virtual Data read() = 0;

  /// Takes what is there to be read now, without waiting. Empty if there is nothing, for now or because of the end.
  virtual Data readAvailable() = 0;

  /// Begins a read that the calling thread's run loop completes, once, while it runs in the default mode: as soon as
  /// there is something to read, with what is there, or at the end with an empty chunk. Where a read is pending, the
  /// new one takes its place.
  ///
  /// At the end each further read completes with an empty chunk, too, but not before kEndedReadInterval has passed: who
  /// always begins the next one does not keep the processor busy. Such a read does not complete where the system has no
  /// timer left.
  ///
  /// The completion may begin the next read, run the loop and let go of this object. A read that is pending when this
  /// object goes does not complete.
  virtual void readInBackground(Completion completion) = 0;

  /// Ends a pending read, which then does not complete. Without one this does nothing.
  virtual void cancelBackgroundRead() = 0;
};

/// The handle of one child process.
///
/// Letting go of it closes the standard-input pipe; nothing else happens to a child that still runs. What the system
/// keeps of an ended child is released when its status is asked for or its handle goes, and for a child that ends after
/// that, when the process next launches a child or lets go of one.
class Child {
 public:
  virtual ~Child() = default;

  /// The end to read standard output from. It may outlive this handle.
  virtual std::shared_ptr<ChildOutput> standardOutput() = 0;

  /// The end to read standard error from: that of standard output if they share a pipe.
  virtual std::shared_ptr<ChildOutput> standardError() = 0;

  /// Starts the program, once in the handle's life. It finds the arguments after its own path, the host's environment
  /// and working folder, the three standard streams and no other descriptor, no signal blocked and the default answer
  /// to each. The host's own signal mask and handlers stay as they are.
  /// @param path  the executable; it is not looked for along a search path, and no shell is involved.
  /// @throws std::system_error  when it could not be started. The pipes stay open until the handle goes.
  virtual void launch(const std::string& path, const std::vector<std::string>& arguments) = 0;

  /// Whether it was launched and has not ended. Any thread may ask.
  virtual bool isRunning() = 0;

  /// The exit status, 0 to 255, or the number of the signal that ended it. 0 while it runs or when it was not launched,
  /// -1 when somebody else has taken the status from the system. Any thread may ask.
  virtual int32_t terminationStatus() = 0;

  /// Asks it to end (SIGTERM); it may do so later or not at all. Those that it started are not asked. Without a running
  /// child this does nothing. A child whose standard output has been read to the end is about to exit as a rule, and is
  /// given a tenth of a second for it, so that its status stays its own. Any thread may ask.
  virtual void terminate() = 0;
};

/// Where a child's two outputs go.
enum class ChildOutputs {
  separate,     ///< a pipe for each
  errorUnread,  ///< likewise, and nobody will read standard error: what is more than its pipe holds cannot be written
  shared,       ///< one pipe for both, in the order in which the child writes
};

/// Where a child's standard input comes from.
enum class ChildInput {
  pipe,       ///< a pipe that is never written to; it ends when the handle goes
  inherited,  ///< the host's own
};

class ChildProcess {
 public:
  virtual ~ChildProcess() = default;

  /// A handle with its pipes and no process yet. Never null.
  /// @throws std::system_error  when the pipes cannot be made.
  virtual std::shared_ptr<Child> create(ChildOutputs outputs, ChildInput input) = 0;
};

}  // namespace vorlix
