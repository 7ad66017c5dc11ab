// SPDX-License-Identifier: Apache-2.0
//
// What the calls of the statfs() family tell of a volume, and its name where it has no label.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace vorlix {

/// Blocks in bytes. Absent where that is no number: a file system may claim anything.
inline std::optional<uint64_t> bytesIn(uint64_t blocks, uint64_t blockSize) {
  if (blockSize != 0 && blocks > std::numeric_limits<uint64_t>::max() / blockSize) return std::nullopt;
  return blocks * blockSize;
}

/// The last component of a path; "/" of the root.
inline std::string lastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

}  // namespace vorlix
