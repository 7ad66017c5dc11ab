// SPDX-License-Identifier: Apache-2.0
/// @file
/// Runs a program and returns its output.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <memory>
#include <string>
#include <vector>

/// Runs programs. Objects of this class have no state: all of them behave the same, on any thread.
class VORLIX_EXPORT QDTaskHelper : public vorlix::Object {
 public:
  QDTaskHelper() = default;

  /// Returns the shared instance, which is created on first use.
  static std::shared_ptr<QDTaskHelper> sharedTaskHelper();

  /// Runs a program and returns what it prints, standard output and standard error in the order in which it wrote them
  /// (`runCommand:withOptions:`). Line feeds are removed, so the lines run together; carriage returns are kept.
  ///
  /// The function reads while the program runs and holds the whole output in memory. It returns when every process that
  /// inherited the output has closed it, whether or not the program has ended by then. The exit status is ignored. The
  /// program shares the host's standard input.
  ///
  /// Each line is also written to the log, after five spaces and cut to 1023 bytes including the line feed. The text
  /// after the last line feed counts as a line; it is empty if the output ends in a line feed. A line that contains a
  /// zero byte is logged up to that byte.
  ///
  /// @param launchPath  full path of the executable. No shell is involved.
  /// @param options     arguments of the program.
  /// @return the output; empty if it is not well-formed UTF-8, in which case nothing is logged.
  /// @throws std::system_error  if the program cannot be executed.
  std::string runCommand(const std::string& launchPath, const std::vector<std::string>& options);
};
