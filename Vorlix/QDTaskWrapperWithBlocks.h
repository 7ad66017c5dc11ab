// SPDX-License-Identifier: Apache-2.0
/// @file
/// One child process that runs in the background and reports through callbacks.
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

/// A read of one of the child's outputs that has completed.
struct ReadCompletion {
  std::shared_ptr<ChildOutput> object;  ///< the pipe's read end
  Data data;                            ///< what was read; empty at the end
};

}  // namespace vorlix

/// Runs a program and hands over what it prints, piece by piece, as it comes.
///
/// The program is named by its full path and started without a shell. Everything is delivered by the run loop of the
/// thread that called startProcess(), while that loop runs in the default mode; all calls are to be made on that
/// thread, but terminationStatus(), which another thread may call as long as no run is started meanwhile.
///
/// A run ends with stopProcess(), which happens by itself when standard output has ended, that is when every process
/// that inherited it has closed it. An owner lets it come to that before it lets the wrapper go: when the last owner
/// lets go of it earlier, the process is left to itself and no callback follows.
///
///     const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock(
///         [] {}, [] { ... }, [](const std::optional<std::string>& text) { ... }, [](const auto&) {},
///         std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"/bin/sh", "-c", "ls | wc -l"}));
///     wrapper->startProcess();
class VORLIX_EXPORT QDTaskWrapperWithBlocks : public vorlix::Object {
 public:
  using Block = std::function<void()>;

  /// Takes a piece of output as UTF-8 text. Absent for a piece that is not well-formed, as one that ends inside a
  /// character: pieces are cut where the pipe had no more to give, and not put together.
  using TextBlock = std::function<void(const std::optional<std::string>& text)>;

  /// A new wrapper (`initWithStartBlock:endBlock:outputBlock:errorOutputBlock:arguments:`). Nothing is started or
  /// checked.
  ///
  /// All four callbacks are required: calling one that is empty throws std::bad_function_call.
  /// @param arguments  the executable's path, then its arguments. The list is shared, not copied; a run reads it at its
  /// start.
  static std::shared_ptr<QDTaskWrapperWithBlocks> initWithStartBlock(
      Block start, Block end, TextBlock output, TextBlock errorOutput,
      std::shared_ptr<const std::vector<std::string>> arguments);

  /// Starts a run: calls the start callback, makes a new process with a pipe for each of its streams, begins to listen
  /// to both outputs and launches it. Its standard input never holds anything and stays open as long as the wrapper has
  /// the process.
  ///
  /// While an earlier run is on, that process is let go of but not ended, its output still arrives, and its end stops
  /// the new run.
  /// @throws std::system_error  when there is no pipe to be had or the program cannot be executed; in the second case,
  ///                            listening goes on. The start callback has run.
  /// @throws std::out_of_range  when the list has no element or is null. The start callback has run.
  void startProcess();

  /// Stops listening to the outputs, those of earlier runs included, asks the process to end and calls the end
  /// callback, every time that it is called. The wrapper stays alive until that has returned.
  void stopProcess();

  /// Takes a completed read of standard output (`getData:`): hands on a piece and begins the next read, or, at the end,
  /// hands on what standard error holds at that moment and stops the run.
  void getData(const vorlix::ReadCompletion& chunk);

  /// Takes a completed read of standard error (`getStdErr:`): hands on a piece, if there is one, and begins the next
  /// read. The end of standard error does not end the run: empty reads go on completing until it is stopped, at most
  /// ten a second, so that they cost nothing.
  void getStdErr(const vorlix::ReadCompletion& chunk);

  /// The exit status of the last process, or the number of the signal that ended it; 0 if none was launched, -1 if the
  /// host took the status from the system. If the process still runs, the calling thread is blocked for 5 seconds, and
  /// -999 is given if it then runs still.
  int32_t terminationStatus();

 private:
  QDTaskWrapperWithBlocks(Block start, Block end, TextBlock output, TextBlock errorOutput,
                          std::shared_ptr<const std::vector<std::string>> arguments);

  using Handler = void (QDTaskWrapperWithBlocks::*)(const vorlix::ReadCompletion&);

  /// @return whether the run is still on; the callback may have stopped it.
  bool takeWaitingErrors(const std::shared_ptr<vorlix::ChildOutput>& ended);
  bool isObserved(const std::shared_ptr<vorlix::ChildOutput>& output) const;
  void readInBackground(const std::shared_ptr<vorlix::ChildOutput>& output, Handler handler);

  std::shared_ptr<vorlix::Child> task_;
  Block startBlock_;
  Block endBlock_;
  TextBlock outputBlock_;
  TextBlock errorOutputBlock_;
  std::shared_ptr<const std::vector<std::string>> arguments_;
  [[maybe_unused]] uint8_t isBinaryOutput_ = 0;  // without effect: output is always text
  std::vector<std::shared_ptr<vorlix::ChildOutput>> observed_;
};
