// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the system's command interpreter.
#pragma once

#include <string>

namespace vorlix {

class Shell {
 public:
  virtual ~Shell() = default;

  /// Runs a command line and waits for its end. It has the host's standard streams and environment.
  /// @return the wait status that the interpreter ended with, -1 if it could not be started.
  virtual int run(const std::string& command) = 0;
};

}  // namespace vorlix
