// SPDX-License-Identifier: Apache-2.0
//
// The system's error numbers as dissenters.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

#include <optional>
#include <string>

namespace vorlix {

/// What became of a request: absent for success.
using Refusal = std::optional<Dissenter>;

/// The published code for an error number.
int32_t dissentStatus(int error);

/// A dissenter for an error number; its text is `what`, a colon and the error in words.
Dissenter dissenterFor(int error, const std::string& what);

}  // namespace vorlix
