// SPDX-License-Identifier: Apache-2.0
//
// The folders that the kernel's file systems are mounted in. Only the super-user has such mounts; mirrors stand in the
// user's state folder (MirrorPlace.h).
#pragma once

#include <sys/types.h>

#include <string>

#include "Dissenters.h"

namespace vorlix {

/// A volume's name as the name of a folder: no separators, no control characters, no leading dot, at most 128 bytes.
/// Empty where nothing of it is left.
std::string safeFolderName(const std::string& name);

/// The most folders of one name, which have a number added: "name", "name-1" and so on.
inline constexpr int kMostOfOneName = 1000;

/// Makes a new folder in /run/vorlix, where the super-user's mounts are, called `name`, or "name-1", "name-2" ... where
/// that is taken. The place is refused unless it is a folder, not a link, that belongs to the user and that nobody else
/// can write to.
Refusal makeMountFolder(const std::string& name, mode_t mode, std::string& path);

/// Removes an empty folder that makeMountFolder() made. Other folders are left alone.
void removeMountFolder(const std::string& path);

}  // namespace vorlix
