// SPDX-License-Identifier: Apache-2.0
//
// Unpacking as plain data and functions, since it may be in a module of its own: no object of C++ and no exception goes
// from one binary to the other.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorlix {

/// PackedBytes as functions over `packed`.
struct PackedCalls {
  void* packed = nullptr;
  ssize_t (*read)(void* packed, void* buffer, size_t count) = nullptr;
  bool (*seek)(void* packed, uint64_t offset) = nullptr;
  int64_t size = -1;  ///< -1 where it is not known; seek() then fails
};

/// Unpacking as functions. What open() returns is what the others get; close() ends it.
struct UnpackerTable {
  /// @param format  a PackedFormat.
  /// @param reason  gets the reason where the result is null, ended by a NUL within `room` bytes.
  void* (*open)(int format, const PackedCalls* calls, char* reason, size_t room) = nullptr;
  ssize_t (*read)(void* unpacker, void* buffer, size_t count) = nullptr;
  int64_t (*size)(void* unpacker) = nullptr;  ///< -1 where it is not known
  const char* (*reason)(void* unpacker) = nullptr;
  void (*close)(void* unpacker) = nullptr;
};

/// The functions, which stay valid. @return null with a `reason` where the module cannot be loaded.
const UnpackerTable* unpackerTable(std::string& reason);

}  // namespace vorlix
