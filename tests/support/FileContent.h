// SPDX-License-Identifier: Apache-2.0
//
// Files as the tests read them.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace vorlix::test {

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace vorlix::test
