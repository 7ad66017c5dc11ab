// SPDX-License-Identifier: Apache-2.0
//
// The system calls that the tracer counts: those that work on files, disks and processes and that can fail.
#pragma once

#include <cstdint>
#include <span>

/// A system call, and which of its arguments (from 0) say what it works on; -1 where it has no such argument.
struct Call {
  long number;
  const char* name;
  int descriptor = -1;  ///< the file by its descriptor; with `path`, the folder that a relative path starts at
  int path = -1;
  int otherDescriptor = -1;  ///< the second file of a call that has two: where a name comes from, say
  int otherPath = -1;
  int count = -1;       ///< bytes to transfer
  int offset = -1;      ///< where in the file; without it a transfer takes place at the descriptor's position
  int buffers = -1;     ///< an array of `iovec`, with its length as the next argument
  int flags = -1;       ///< what tells an opening that creates a file
  bool isFile = false;  ///< counts only with a descriptor: mapping memory is no matter of files
};

/// All calls that are counted.
std::span<const Call> countedCalls();

/// Null for a call that is not counted.
const Call* findCall(uint64_t number);
