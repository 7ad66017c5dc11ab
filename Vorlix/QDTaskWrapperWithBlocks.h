// SPDX-License-Identifier: Apache-2.0
/// @file
/// Runs a child process in the background and reports through callbacks.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>
#include <Vorlix/foundation/Value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

class Child;
class ChildOutput;

/// The result of a completed read from one of the child's outputs.
struct ReadCompletion {
  std::shared_ptr<ChildOutput> object;  ///< read end of the pipe
  Data data;                            ///< the bytes that were read; empty at the end of the output
};

}  // namespace vorlix

/// Runs a program and passes its output to callbacks, piece by piece, as it arrives.
///
/// The program is named by its full path and started without a shell.
///
/// Threads: the run loop of the thread that called startProcess() calls all callbacks, while it runs in the default
/// mode. Call every function on that thread, except terminationStatus(): another thread may call it as long as no run
/// is started at the same time.
///
/// A run ends with stopProcess(). The wrapper calls it itself when standard output has ended, that is, when every
/// process that inherited it has closed it. Keep the wrapper until then: if the last owner releases it earlier, the
/// process keeps running on its own and no callback follows.
///
///     const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock(
///         [] {}, [] { ... }, [](const std::optional<std::string>& text) { ... }, [](const auto&) {},
///         std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"/bin/sh", "-c", "ls | wc -l"}));
///     wrapper->startProcess();
class VORLIX_EXPORT QDTaskWrapperWithBlocks : public vorlix::Object {
 public:
  /// A callback for the start or the end of a run.
  using Block = std::function<void()>;

  /// A callback that receives a piece of output as UTF-8 text. `text` is absent if the piece is not well-formed UTF-8.
  /// A piece holds what the pipe had at that time; pieces are not joined, so one that ends inside a character is not
  /// well-formed.
  using TextBlock = std::function<void(const std::optional<std::string>& text)>;

  /// Returns a new wrapper (`initWithStartBlock:endBlock:outputBlock:errorOutputBlock:arguments:`). Starts and checks
  /// nothing.
  ///
  /// All four callbacks are required: std::bad_function_call is thrown when an empty one is called.
  /// @param start        called at the start of each run.
  /// @param end          called by stopProcess().
  /// @param output       receives standard output.
  /// @param errorOutput  receives standard error.
  /// @param arguments    path of the executable, then its arguments. The list is shared, not copied; each run reads it
  ///                     at its start.
  static std::shared_ptr<QDTaskWrapperWithBlocks> initWithStartBlock(
      Block start, Block end, TextBlock output, TextBlock errorOutput,
      std::shared_ptr<const std::vector<std::string>> arguments);

  /// Starts a run: calls the start callback, creates a process with a pipe for each of its streams, starts to listen to
  /// both outputs, and launches the program. The program's standard input never receives anything; it stays open as
  /// long as the wrapper keeps the process.
  ///
  /// If an earlier run has not ended, the wrapper releases its process but does not terminate it. The output of that
  /// process still arrives, and the end of its standard output stops the new run.
  /// @throws std::system_error  if no pipe can be created, or if the program cannot be executed; in the second case
  ///                            the wrapper still listens. The start callback has run.
  /// @throws std::out_of_range  if the list of arguments is null or empty. The start callback has run.
  void startProcess();

  /// Stops a run: stops listening to all outputs, including those of earlier runs, asks the process to end (SIGTERM),
  /// and calls the end callback. Every call does this again. The wrapper stays alive until the end callback has
  /// returned.
  void stopProcess();

  /// Handles a completed read of standard output (`getData:`). Passes the piece to the callback and starts the next
  /// read. At the end of the output, passes on what standard error holds at that time and stops the run.
  void getData(const vorlix::ReadCompletion& chunk);

  /// Handles a completed read of standard error (`getStdErr:`). Passes the piece to the callback unless it is empty,
  /// and starts the next read. The end of standard error does not end the run: until the run is stopped, empty reads
  /// complete at most ten times a second, so that they use almost no processor time.
  void getStdErr(const vorlix::ReadCompletion& chunk);

  /// Returns the exit status of the last process, or the number of the signal that ended it.
  ///
  /// If the process is still running, the function blocks the calling thread for 5 seconds and returns -999 if the
  /// process is running even then.
  /// @return also 0 if no process was launched, and -1 if the host collected the status from the system itself.
  int32_t terminationStatus();

 private:
  QDTaskWrapperWithBlocks(Block start, Block end, TextBlock output, TextBlock errorOutput,
                          std::shared_ptr<const std::vector<std::string>> arguments);

  using Handler = void (QDTaskWrapperWithBlocks::*)(const vorlix::ReadCompletion&);

  /// Passes on what standard error holds when standard output ends.
  /// @return whether the run continues; the callback may have stopped it.
  bool takeWaitingErrors(const std::shared_ptr<vorlix::ChildOutput>& ended);
  bool isObserved(const std::shared_ptr<vorlix::ChildOutput>& output) const;
  void readInBackground(const std::shared_ptr<vorlix::ChildOutput>& output, Handler handler);

  std::shared_ptr<vorlix::Child> task_;
  Block startBlock_;
  Block endBlock_;
  TextBlock outputBlock_;
  TextBlock errorOutputBlock_;
  std::shared_ptr<const std::vector<std::string>> arguments_;
  [[maybe_unused]] uint8_t isBinaryOutput_ = 0;  // has no effect: output is always text
  std::vector<std::shared_ptr<vorlix::ChildOutput>> observed_;
};
