// SPDX-License-Identifier: Apache-2.0
//
// The folders for the kernel's mounts. Only the super-user has such mounts; mirrors are in the user's state folder
// (MirrorFolders.h).
#pragma once

#include <sys/types.h>

#include <string>

#include "Dissenters.h"

namespace vorlix {

/// Returns a volume's name in a form for the name of a folder: no slashes, no control characters, no leading dot, at
/// most 128 bytes. May be empty.
std::string safeFolderName(const std::string& name);

/// The most folders of one name, which have a number added: "name", "name-1" and so on.
inline constexpr int kMostOfOneName = 1000;

/// Makes a new folder in /run/vorlix, called `name`, or "name-1", "name-2" and so on if that exists. Refused if
/// /run/vorlix is a link, belongs to another user or can be written by others.
Refusal makeMountFolder(const std::string& name, mode_t mode, std::string& path);

/// Removes an empty folder that makeMountFolder() made. Does nothing for other folders.
void removeMountFolder(const std::string& path);

}  // namespace vorlix
