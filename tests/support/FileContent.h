// SPDX-License-Identifier: Apache-2.0
//
// Files as the tests read them.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace vorlix::test {

/// The bytes of a file, none where it cannot be read. Disk images take long if they are read byte by byte.
inline std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(content).str();
}

}  // namespace vorlix::test
