// SPDX-License-Identifier: Apache-2.0
//
// Runs a command, counts the system calls of all its processes and threads, and injects one fault at one of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Calls.h"
#include "Tracee.h"

/// The fault at the chosen call.
enum class Fault { none, error, shortTransfer, killBefore, killAfter };

struct Task {
  std::vector<std::string> command;
  uint64_t at = 0;       ///< number of the call, from 1
  uint64_t process = 0;  ///< the call's process, as in CallRecord; 0 if `at` counts the calls of all processes
  Fault fault = Fault::none;
  int error = 0;                   ///< errno of Fault::error
  double seconds = 60;             ///< time limit; then all processes are killed
  bool fromStart = false;          ///< also counts the calls of the dynamic loader
  std::vector<std::string> calls;  ///< names of the calls to count; empty for all
};

/// A counted call.
struct CallRecord {
  size_t process = 0;  ///< 1 for the command, higher numbers for its children in the order of their first stop
  const Call* call = nullptr;
  std::string file;
  std::string other;
  int64_t count = -1;
  int64_t offset = -1;
  int64_t flags = 0;
  bool isDone = false;
  int64_t result = 0;
};

struct Outcome {
  enum class End { exited, signalled, killed, hang, failed };
  End end = End::failed;    ///< end of the command's own process; `killed`: by the fault; `failed`: tracing failed
  int status = 0;           ///< exit status or signal
  bool isHit = false;       ///< the process reached the chosen call, and the fault was injected
  size_t chosen = 0;        ///< number of the chosen call in `calls`, from 1; 0 if it was not reached
  int childrenByCrash = 0;  ///< number of child processes that a signal ended, except signals of the tracer
  std::string reason;       ///< the reason for `failed`
  std::vector<CallRecord> calls;
};

/// Runs a command to its end under the tracer.
Outcome trace(const Task& task);
