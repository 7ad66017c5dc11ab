// SPDX-License-Identifier: Apache-2.0
//
// How the adapters for Linux report failures: a request is refused with a dissenter, which has a status that callers
// can compare and a text for people.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/SystemError.h>

#include <optional>
#include <string>

namespace vorlix {

/// The result of a request: absent for success.
using Refusal = std::optional<Dissenter>;

/// Returns the dissenter for an error number; `subject` is a path, a device or what was being done.
inline Dissenter dissenterFor(int error, const std::string& subject) {
  return SystemError{error, subject}.dissenter();
}

/// Returns the dissenter for a change to a disk that failed.
// Of a volume that is written back. The command may have written elsewhere before.
inline Dissenter dissenterFor(const ChangeFailure& failure) {
  std::string text = failure.subject + ": " + failure.reason;
  if (failure.state == kNothingWritten) {
    text += "; the volume was not written to";
  } else if (failure.state == kPutBack) {
    text += "; what was written to the volume was put back";
  } else if (!failure.state.empty()) {
    text += "; " + failure.state;
  }
  return {kDissentError, text};
}

}  // namespace vorlix
