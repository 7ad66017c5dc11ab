// SPDX-License-Identifier: Apache-2.0
/// @file
/// A program with its arguments.
#pragma once

#include <string>
#include <vector>

namespace vorlix {

/// A program to run.
struct Task {
  std::string launchPath;              ///< the full path of the executable; there is no search path
  std::vector<std::string> arguments;  ///< without the program's own name
};

}  // namespace vorlix
