// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

namespace vorlix::tool {

/// Exit statuses of every command.
enum ExitStatus : int { kDone = 0, kChangeNeeded = 1, kError = 2 };

/// Ends a command with kError. The text names the file or device and the reason.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& subject, const std::string& reason, std::string state = "nothing was written")
      : std::runtime_error(subject + ": " + reason + "; " + state) {}

  static Failure ofErrno(const std::string& subject, int error) { return {subject, std::strerror(error)}; }
};

}  // namespace vorlix::tool
