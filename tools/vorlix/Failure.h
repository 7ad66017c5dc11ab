// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DiskChange.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace vorlix::tool {

/// Exit statuses of every command.
enum ExitStatus : int { kDone = 0, kChangeNeeded = 1, kError = 2 };

/// Ends a command with kError. The message names the file or device and the reason. `state` describes what the command
/// wrote or the resulting state. Without a state, the message of a command that can write says that nothing was
/// written; that of a read-only command says no more.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& subject, const std::string& reason, std::optional<std::string> state = std::nullopt)
      : std::runtime_error(subject + ": " + reason), state_(std::move(state)) {}

  /// With the meaning of an `errno` as the reason.
  static Failure ofErrno(const std::string& subject, int error, std::optional<std::string> state = std::nullopt) {
    return {subject, std::strerror(error), std::move(state)};
  }

  /// Returns the same failure with this state, unless it has one already.
  Failure in(const std::string& state) const {
    Failure failure = *this;
    if (!failure.state_) failure.state_ = state;
    return failure;
  }

  /// Returns the same failure with this added to its reason.
  Failure with(const std::string& advice) const {
    Failure failure(what() + ("; " + advice));
    failure.state_ = state_;
    return failure;
  }

  /// Returns whether the failed step left everything as it was. Steps before it may have changed something.
  bool changedNothing() const { return !state_ || *state_ == kNothingWritten || *state_ == kPutBack; }

  /// Returns the message. `unwritten` is the state of a command that wrote nothing.
  std::string text(bool onlyLooks, const std::string& unwritten) const {
    if (!state_ && onlyLooks) return what();
    return what() + ("; " + state_.value_or(unwritten));
  }

 private:
  explicit Failure(const std::string& text) : std::runtime_error(text) {}

  std::optional<std::string> state_;
};

}  // namespace vorlix::tool
