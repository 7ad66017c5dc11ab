// SPDX-License-Identifier: Apache-2.0
//
// Runs a program of the system to its end. Nothing of it passes through a shell.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace vorlix {

/// Where programs are looked for: the super-user's are the system's, whatever PATH says; else PATH, if it is set.
std::string searchPath();

struct Command {
  std::vector<std::string> arguments;    ///< the first is the program, looked for along searchPath()
  std::vector<std::string> environment;  ///< "NAME=value", besides PATH (searchPath()) and TZ
  int shared = -1;                       ///< descriptor that the program finds as kSharedDescriptor; -1 for none

  /// Takes what the program prints, piece by piece; absent to drop it.
  std::function<void(const char* bytes, size_t count)> output;

  /// Of processor time, after which the program is ended: copying takes a few seconds for gigabytes, but a name that
  /// mtools cannot spell has it try for ever.
  unsigned processorSeconds = 60;
};

inline constexpr int kSharedDescriptor = 3;

struct CommandResult {
  int launchError = 0;  ///< why the program could not be started, else 0
  int status = -1;      ///< exit status; -1 when it was not started, ended by a signal, or its end was not seen
  std::string errors;   ///< the start of what it wrote to standard error, without the last line's end
  bool succeeded() const { return launchError == 0 && status == 0; }
};

/// The program has no standard input. Its output and errors are read while it runs.
CommandResult runCommand(const Command& command);

}  // namespace vorlix
