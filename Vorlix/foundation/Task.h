// SPDX-License-Identifier: Apache-2.0
/// @file
/// A program that is ready to be started.
#pragma once

#include <string>
#include <vector>

namespace vorlix {

struct Task {
  std::string launchPath;              ///< the executable's full path; it is not looked for elsewhere
  std::vector<std::string> arguments;  ///< without the program's own name
};

}  // namespace vorlix
