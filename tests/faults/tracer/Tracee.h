// SPDX-License-Identifier: Apache-2.0
//
// What can be seen of a stopped task, and changed in it. x86-64 and 64-bit ARM.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// A system call as a task makes it.
struct CallStop {
  bool isEntry = false;
  bool isExit = false;
  uint64_t number = 0;                  ///< at the entry
  std::array<uint64_t, 6> arguments{};  ///< at the entry
  int64_t result = 0;                   ///< at the exit; a negative errno where it failed
};

/// Looks at the system call at which a task is stopped. Absent where the kernel does not tell.
std::optional<CallStop> lookAtCall(pid_t task);

/// At an entry: the call is not made; its result is to be set at the exit.
bool skipCall(pid_t task);

/// At an entry: changes an argument.
bool setArgument(pid_t task, int argument, uint64_t value);

/// At an exit: changes the result.
bool setResult(pid_t task, int64_t value);

/// Bytes of a task's memory. False where they are not all there.
bool readMemory(pid_t task, uint64_t address, void* bytes, size_t count);
bool writeMemory(pid_t task, uint64_t address, const void* bytes, size_t count);

/// A text that ends in NUL, cut at PATH_MAX.
std::string readText(pid_t task, uint64_t address);

/// The link `name` of a task below /proc; empty where there is none.
std::string linkOf(pid_t task, const std::string& name);

/// Position of a descriptor, or -1.
int64_t positionOf(pid_t task, int descriptor);

/// A breakpoint at the first instruction of a program that has just been started, which runs when the dynamic loader
/// has done its work.
class EntryBreakpoint {
 public:
  /// False where it cannot be set.
  bool set(pid_t task);

  /// Whether the task stopped for it. If so it is gone, and the task goes on as if it had never been.
  bool hit(pid_t task);

 private:
  uint64_t address_ = 0;
  long word_ = 0;
};
