// SPDX-License-Identifier: Apache-2.0
#include "CodePlace.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace vorlix {

// Uses the kernel's map, because the loader only knows the name by which the executable was started.
std::filesystem::path fileOfThisCode() {
  const auto here = reinterpret_cast<uintptr_t>(&fileOfThisCode);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    uintptr_t first = 0;
    uintptr_t end = 0;
    int path = 0;  // range, permissions, offset, device, inode, path
    const int read = std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %*s %*s %*s %*s %n", &first, &end, &path);
    if (read == 2 && here >= first && here < end && path > 0) return line.substr(static_cast<size_t>(path));
  }
  return {};
}

}  // namespace vorlix
