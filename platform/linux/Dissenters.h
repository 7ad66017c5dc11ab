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
inline Dissenter dissenterFor(const ChangeFailure& failure) {
  const std::string state = failure.state.empty() ? "" : "; " + failure.state;
  return {kDissentError, failure.subject + ": " + failure.reason + state};
}

}  // namespace vorlix
