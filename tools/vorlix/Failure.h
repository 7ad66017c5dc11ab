// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace vorlix::tool {

/// Exit statuses of every command.
enum ExitStatus : int { kDone = 0, kChangeNeeded = 1, kError = 2 };

/// Ends a command with kError. The text names the file or device and the reason; `state` says what was written, or how
/// else things stand now. Without a state, a command that only looks says no more, since nobody would expect it to have
/// written; of any other it is said that nothing was.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& subject, const std::string& reason, std::optional<std::string> state = std::nullopt)
      : std::runtime_error(subject + ": " + reason), state_(std::move(state)) {}

  static Failure ofErrno(const std::string& subject, int error) { return {subject, std::strerror(error)}; }

  /// What is told of it; `unwritten` is the state of a command that has written nothing.
  std::string text(bool onlyLooks, const std::string& unwritten) const {
    if (!state_ && onlyLooks) return what();
    return what() + ("; " + state_.value_or(unwritten));
  }

 private:
  std::optional<std::string> state_;
};

}  // namespace vorlix::tool
