// SPDX-License-Identifier: Apache-2.0
/// @file
/// Runs a program to the end of its output.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <memory>
#include <string>
#include <vector>

/// Objects of this class have no state: any of them does what any other does, on any thread.
class VORLIX_EXPORT QDTaskHelper : public vorlix::Object {
 public:
  QDTaskHelper() = default;

  /// The shared instance, made on first use.
  static std::shared_ptr<QDTaskHelper> sharedTaskHelper();

  /// Runs a program and gives what it prints (`runCommand:withOptions:`): standard output and standard error as it
  /// wrote them, without line feeds, so that the lines run together; carriage returns stay. It reads while the program
  /// runs, holds everything in memory, and returns when all who inherited the output have closed it, whether or not the
  /// program has ended by then. The exit status is not looked at. Standard input is the host's own.
  ///
  /// Each line goes to the log, after five blanks and cut to 1023 bytes, line feed included; what follows the last line
  /// feed counts as a line, and is empty if the output ends in one. A line with a zero byte in it is logged up to that.
  ///
  /// @param launchPath  the executable's full path. No shell is involved.
  /// @param options     its arguments.
  /// @return empty, and nothing logged, when the output is not well-formed UTF-8.
  /// @throws std::system_error  when the program cannot be executed.
  std::string runCommand(const std::string& launchPath, const std::vector<std::string>& options);
};
