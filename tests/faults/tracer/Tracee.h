// SPDX-License-Identifier: Apache-2.0
//
// Reads and changes the state of a stopped task. Supports x86-64 and 64-bit ARM.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// A task's stop at the entry or exit of a system call.
struct CallStop {
  bool isEntry = false;
  bool isExit = false;
  uint64_t number = 0;                  ///< at the entry
  std::array<uint64_t, 6> arguments{};  ///< at the entry
  int64_t result = 0;                   ///< at the exit; a negative errno for a failed call
};

/// Makes the kernel stop this process, and those that it starts, at the entries of the counted calls alone: the tracer
/// needs PTRACE_O_TRACESECCOMP. Stops cost most of a traced run. @return false if the kernel refuses; errno says why.
bool stopAtCountedCalls();

/// Returns the system call at which a task is stopped; absent if the kernel does not report it.
std::optional<CallStop> lookAtCall(pid_t task);

/// At an entry: makes the kernel skip the call. The caller sets the result at the exit.
bool skipCall(pid_t task);

/// At an entry: changes an argument.
bool setArgument(pid_t task, int argument, uint64_t value);

/// At an exit: changes the result.
bool setResult(pid_t task, int64_t value);

/// Reads or writes bytes of a task's memory. @return false if not all of them could be transferred.
bool readMemory(pid_t task, uint64_t address, void* bytes, size_t count);
bool writeMemory(pid_t task, uint64_t address, const void* bytes, size_t count);

/// Reads a NUL-terminated string, truncated at PATH_MAX.
std::string readText(pid_t task, uint64_t address);

/// Returns the target of the link `name` in a task's folder below /proc; empty if it does not exist.
std::string linkOf(pid_t task, const std::string& name);

/// Returns the file position of a descriptor, or -1.
int64_t positionOf(pid_t task, int descriptor);

/// A breakpoint at the first instruction of a program that has just started. The program reaches it after the dynamic
/// loader is done.
class EntryBreakpoint {
 public:
  /// Sets the breakpoint. @return false if that fails.
  bool set(pid_t task);

  /// Returns whether the task stopped at the breakpoint. If so, removes it, so that the task can continue normally.
  bool hit(pid_t task);

 private:
  uint64_t address_ = 0;
  long word_ = 0;
};
