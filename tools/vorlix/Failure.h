// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

namespace vorlix::tool {

/// Exit statuses of every command.
enum ExitStatus : int { kDone = 0, kChangeNeeded = 1, kError = 2 };

/// What a failure says of the disk unless it knows better.
inline constexpr const char* kNothingWritten = "nothing was written";

/// Ends a command with kError. The text names the file or device and the reason.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& subject, const std::string& reason, const std::string& state = kNothingWritten)
      : std::runtime_error(subject + ": " + reason + "; " + state),
        reader_(subject + ": " + reason + (state == kNothingWritten ? "" : "; " + state)) {}

  static Failure ofErrno(const std::string& subject, int error) { return {subject, std::strerror(error)}; }

  /// The message of a command that never writes, and so need not say that it did not.
  const std::string& messageOfReader() const { return reader_; }

 private:
  std::string reader_;
};

}  // namespace vorlix::tool
