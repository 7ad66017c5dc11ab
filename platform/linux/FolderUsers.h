// SPDX-License-Identifier: Apache-2.0
//
// Which processes use the files of a folder.
#pragma once

#include <string>

#include "Dissenters.h"

namespace vorlix {

/// Returns a process that has an item of the folder open, mapped or as its current folder, as "process 12 (vi)"; empty
/// if no such process can be seen. An ordinary user sees the processes of that user, and nobody else can reach a
/// mirror.
std::string userOfFolder(const std::string& folder);

/// Refuses with kDissentBusy if any process has a file of the folder open or mapped. This finds processes that
/// userOfFolder() cannot see: those of other users or in other mount namespaces. Refuses nothing if the file system or
/// the user's rights do not allow the check.
Refusal checkNoFileOpen(const std::string& folder);

}  // namespace vorlix
