// SPDX-License-Identifier: Apache-2.0
//
// Sizes of a volume from the statfs() family of calls, and its name if it has no label.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace vorlix {

/// Returns the size of blocks in bytes. Absent if it does not fit the type: a file system may claim anything.
inline std::optional<uint64_t> bytesIn(uint64_t blocks, uint64_t blockSize) {
  if (blockSize != 0 && blocks > std::numeric_limits<uint64_t>::max() / blockSize) return std::nullopt;
  return blocks * blockSize;
}

/// Returns the last component of a path; "/" for the root.
inline std::string lastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

}  // namespace vorlix
