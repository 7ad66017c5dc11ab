// SPDX-License-Identifier: Apache-2.0
//
// The system calls that the tracer counts: calls on files, disks and processes that can fail.
#pragma once

#include <cstdint>
#include <span>

/// A system call and the positions of its arguments, from 0; -1 if it has no such argument.
struct Call {
  long number;
  const char* name;
  int descriptor = -1;  ///< the file's descriptor; with `path`, the folder that a relative path starts at
  int path = -1;
  int otherDescriptor = -1;  ///< the second file of a call with two, such as the old name of a rename
  int otherPath = -1;
  int count = -1;       ///< bytes to transfer
  int offset = -1;      ///< offset in the file; a transfer without it uses the descriptor's position
  int buffers = -1;     ///< an array of `iovec`; the next argument is its length
  int flags = -1;       ///< the flags of open(), which may contain O_CREAT
  bool isFile = false;  ///< counted only with a descriptor: a mapping without a file does not count
};

/// Returns all counted calls.
std::span<const Call> countedCalls();

/// Returns the call with that number; null if it is not counted.
const Call* findCall(uint64_t number);
