// SPDX-License-Identifier: Apache-2.0
//
// Runs a program of the system until it ends, without a shell.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace vorlix {

/// Returns the search path of programs: the system's folders for the super-user, else PATH if it is set.
std::string searchPath();

struct Command {
  std::vector<std::string> arguments;    ///< the first is the program, searched for in searchPath()
  std::vector<std::string> environment;  ///< "NAME=value", besides PATH (searchPath()) and TZ
  int shared = -1;                       ///< descriptor that the program finds as kSharedDescriptor; -1 for none

  /// Receives what the program prints, piece by piece; absent to discard it.
  std::function<void(const char* bytes, size_t count)> output;

  /// The limit of processor time. Copying gigabytes takes a few seconds, but mtools tries forever to write a name that
  /// it cannot represent.
  unsigned processorSeconds = 60;
};

inline constexpr int kSharedDescriptor = 3;

struct CommandResult {
  int launchError = 0;  ///< error number if the program could not be started, else 0
  int status = -1;      ///< exit status; -1 if it was not started, was ended by a signal, or its status was lost
  std::string errors;   ///< the start of what it wrote to standard error, without the last line feed
  bool succeeded() const { return launchError == 0 && status == 0; }
};

/// Runs a program without standard input and reads its output and errors meanwhile.
CommandResult runCommand(const Command& command);

}  // namespace vorlix
