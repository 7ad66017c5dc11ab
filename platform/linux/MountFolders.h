// SPDX-License-Identifier: Apache-2.0
//
// The folders that volumes are mounted in.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Dissenters.h"

namespace vorlix {

/// The folder for this user's mount points, made when it is not there: /run/vorlix for the super-user (mode 0755), else
/// $XDG_RUNTIME_DIR/vorlix, else /tmp/vorlix-<uid> (mode 0700). It is refused unless it is a folder, not a link, that
/// belongs to the user and that nobody else can write to (for an ordinary user: nor read).
/// The path holds no links.
Refusal makeRuntimeFolder(std::string& folder);

/// The same folder where it is there and passes these checks.
std::optional<std::string> existingRuntimeFolder();

/// A volume's name as the name of a folder: no separators, no control characters, no leading dot, at most 128 bytes.
/// Empty where nothing of it is left.
std::string safeFolderName(const std::string& name);

/// Makes a new folder in the runtime folder, called `name`, or "name-1", "name-2" ... where that is taken.
Refusal makeMountFolder(const std::string& name, mode_t mode, std::string& path);

/// Removes an empty folder that makeMountFolder() made. Other folders are left alone.
void removeMountFolder(const std::string& path);

}  // namespace vorlix
