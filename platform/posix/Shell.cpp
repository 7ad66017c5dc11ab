// SPDX-License-Identifier: Apache-2.0
#include "Shell.h"

#include <cstdlib>

namespace vorlix {

int PosixShell::run(const std::string& command) {
  return std::system(command.c_str());
}

}  // namespace vorlix
