// SPDX-License-Identifier: Apache-2.0
//
// A private copy of a volume's used parts, and its differences from the medium after changes.
#pragma once

#include "platform/changes/Journal.h"

#include <memory>
#include <string>

#include <Vorlix/platform/Descriptor.h>
#include "Dissenters.h"
#include "MirrorCopy.h"

namespace vorlix {

/// Makes a sparse file at `path` with the boot area, the tables, the root folder and all clusters of files and folders
/// in their places. The rest is zero.
Refusal copyUsedParts(const OpenVolume& from, const std::string& path, Descriptor& copy);

/// Writes a journal that makes the medium equal to `copy`: first the content of files, then folders, then the tables
/// and the boot area, so that a name never leads to content that was not written yet. Clusters that no file of the copy
/// uses do not change.
/// @param name  the name of the volume, for people.
Refusal writeJournal(const OpenVolume& medium, const OpenVolume& copy, const std::string& device,
                     const DeviceIdentity& identity, const std::string& name, std::unique_ptr<Journal>& journal);

}  // namespace vorlix
