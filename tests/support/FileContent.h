// SPDX-License-Identifier: Apache-2.0
//
// Reading files in tests.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace vorlix::test {

/// Returns the bytes of a file, or an empty string if it cannot be read. Reads in blocks, because reading disk images
/// byte by byte is slow.
inline std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(content).str();
}

}  // namespace vorlix::test
