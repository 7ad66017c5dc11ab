// SPDX-License-Identifier: Apache-2.0
//
// How far a long command is: a bar on a terminal, a line every few seconds elsewhere, or one JSON object a line.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "CommandLine.h"

namespace vorlix::tool {

enum class ProgressForm {
  people,  ///< on standard error: a bar if that is a terminal, else a line every five seconds
  json,    ///< on standard output: {"phase", "done", "total", "bytesPerSecond", "secondsLeft"}, twice a second
  none
};

/// Adds the option --progress.
void addProgressOption(Command& command, ProgressForm& form);

class Progress {
 public:
  /// @param phase  what is being done: "saving"
  Progress(ProgressForm form, std::string phase);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Tells, unless it was told a moment ago, how many of how many bytes are done.
  void show(uint64_t done, uint64_t total);

  /// Tells the last state and, on a terminal, takes the bar away.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  void tell(Clock::time_point now);
  void tellPeople(double rate, double secondsLeft);
  void tellJson(double rate, double secondsLeft) const;

  ProgressForm form_;
  std::string phase_;
  bool isTerminal_;
  bool hasBar_ = false;
  Clock::duration interval_;
  Clock::time_point start_;
  Clock::time_point told_;
  uint64_t done_ = 0;
  uint64_t total_ = 0;
};

/// While it lives, SIGINT, SIGTERM and SIGHUP do not end the program but are noted, so that the command can end at a
/// safe place. A second signal of a kind ends the program at once.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  /// Whether a signal has come.
  static bool hasCome();
};

}  // namespace vorlix::tool
