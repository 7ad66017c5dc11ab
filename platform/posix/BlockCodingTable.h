// SPDX-License-Identifier: Apache-2.0
//
// What the module that packs blocks exports, as plain data. The module lies in a folder with the library's major
// version in its name, so that both sides come from one build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorlix {

/// No function throws. Null and -1 stand for failures.
struct BlockCodingTable {
  void* (*newCoder)();
  void (*freeCoder)(void* coder);
  size_t (*largestFrame)(size_t count);
  int64_t (*pack)(void* coder, const uint8_t* block, size_t size, uint8_t* frame, size_t room);
  int64_t (*unpack)(void* coder, const uint8_t* frame, size_t size, uint8_t* block, size_t room);

  void* (*newHash)();
  void (*freeHash)(void* hash);
  void (*addToHash)(void* hash, const uint8_t* bytes, size_t count);
  void (*finishHash)(void* hash, uint8_t* digest);  ///< 32 bytes
};

/// The table, or null with a reason for people.
const BlockCodingTable* blockCodingTable(std::string& reason);

}  // namespace vorlix
