// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's command interpreter.
#pragma once

#include <string>

namespace vorlix {

/// Port: runs commands by the system's command interpreter.
class Shell {
 public:
  virtual ~Shell() = default;

  /// Runs a command line with the host's standard streams and environment and waits until it ends.
  /// @return the wait status of the interpreter, or -1 if it could not be started.
  virtual int run(const std::string& command) = 0;
};

}  // namespace vorlix
