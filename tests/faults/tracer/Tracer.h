// SPDX-License-Identifier: Apache-2.0
//
// Runs a command, counts the system calls of all its processes and threads, and does one thing at one of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Calls.h"
#include "Tracee.h"

/// What happens at the chosen call.
enum class Fault { none, error, shortTransfer, killBefore, killAfter };

struct Task {
  std::vector<std::string> command;
  uint64_t at = 0;       ///< number of the call, from 1 on
  uint64_t process = 0;  ///< whose call it is, see CallRecord; 0 for a number that goes through all processes
  Fault fault = Fault::none;
  int error = 0;                   ///< errno of Fault::error
  double seconds = 60;             ///< after which everything is ended
  bool fromStart = false;          ///< counts what the dynamic loader does, too
  std::vector<std::string> calls;  ///< names of the calls to count; all of them where it is empty
};

/// A counted call.
struct CallRecord {
  size_t process = 0;  ///< 1 for the command itself, its children in the order of their first stop
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
  End end = End::failed;    ///< of the command's own process; `killed` by the fault; `failed`: it could not be traced
  int status = 0;           ///< exit status or signal
  bool isHit = false;       ///< the chosen call was made and the fault took place
  size_t chosen = 0;        ///< number of the chosen call in `calls`, from 1 on; 0 where it was not made
  int childrenByCrash = 0;  ///< other processes of it that a signal ended, which was none of the tracer's
  std::string reason;       ///< of `failed`
  std::vector<CallRecord> calls;
};

/// Runs a command to its end.
Outcome trace(const Task& task);
