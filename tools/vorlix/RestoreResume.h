// SPDX-License-Identifier: Apache-2.0
//
// Going on with a restore that was interrupted. Functions throw Failure.
#pragma once

#include <optional>
#include <string>

#include "RestoreRun.h"

namespace vorlix::tool {

/// Returns the folder of the interrupted restore that the user named: by its journal's name or the beginning of it, or
/// by a path.
std::string folderOfInterrupted(const std::string& name);

/// Returns the folder of the interrupted restore of the same slice; absent if there is none. One that has another
/// source is refused.
std::optional<std::string> interruptedRestoreOf(const RestoreRequest& request, const std::string& volume);

/// Goes on with it, to the end. Backups go where they went before the interruption.
/// @return the exit status.
int resumeInterrupted(const RestoreOptions& options, const std::string& folder);

}  // namespace vorlix::tool
