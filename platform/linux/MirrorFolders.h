// SPDX-License-Identifier: Apache-2.0
//
// The folders that mirrors use in the user's state folder:
//
//     volumes/NAME              a mirror, which is the mount point
//     volumes/.mirrors/KEY/     what belongs to a mirror; locked while a process works on it
//         state                 MirrorState
//         making/               a mirror that is being made
//         leaving/              a mirror that is being removed
//         copy                  the bytes of the volume, while changes are made to them
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Dissenters.h"
#include "MirrorState.h"

namespace vorlix {

// Names inside the folder of a mirror, appended to its path.
inline constexpr const char* kMirrorStateFile = "/state";
inline constexpr const char* kMirrorLeaving = "/leaving";

/// Returns the folder "volumes". Absent if it does not exist.
std::optional<std::string> existingVolumesFolder();

/// Makes the folder "volumes" and the one that holds the folders of mirrors.
Refusal makeVolumesFolder(std::string& volumes);

/// Returns the path of the folder that belongs to a mirror. `identity` distinguishes the volume at the place `key` from
/// a later one at the same place.
std::string folderOfMirror(const std::string& volumes, const std::string& key, uint64_t identity);

/// Returns the folders of all mirrors, in no order.
std::vector<std::filesystem::path> foldersOfMirrors(const std::string& volumes);

/// Returns the key in the name of a mirror's folder.
std::string keyInName(const std::filesystem::path& folder);

/// Finds out whether a path is a folder, and which one. `identity` is absent if it is certain that it is none. A path
/// that cannot be examined is refused: it may be a folder, and a mirror that is believed to be missing loses its state.
Refusal examineFolder(const std::string& path, std::optional<FolderIdentity>& identity);

/// Returns whether a folder that was found is the one that the mirror was made in.
bool isMadeFolder(const MirrorState& state, const std::optional<FolderIdentity>& found);

/// Returns whether the folder at `path` is the one that the mirror was made in, and not another one of the same name.
bool isFolderOf(const MirrorState& state, const std::string& path);

/// Reads the file with the state. @return false with `errno` set if there is none.
bool readStateFile(const std::string& folder, std::string& bytes);

/// Returns the state that is saved in a mirror's folder, whether the mirror exists or not.
std::optional<MirrorState> savedState(const std::string& folder);

int64_t nanoseconds(const struct statx_timestamp& time);

}  // namespace vorlix
