// SPDX-License-Identifier: Apache-2.0
//
// A private copy of a volume's used parts, and what differs from the medium after it was changed.
#pragma once

#include "platform/changes/Journal.h"

#include <memory>
#include <string>

#include <Vorlix/platform/Descriptor.h>
#include "Dissenters.h"
#include "MirrorCopy.h"

namespace vorlix {

/// Makes a sparse file at `path` with the boot area, the tables, the root folder and all clusters that belong to a file
/// or folder, each in its place; all else is zero.
Refusal copyUsedParts(const OpenVolume& from, const std::string& path, Descriptor& copy);

/// Describes in a journal how the medium becomes what `copy` is: first the content of files, then folders, then the
/// tables and the boot area, so that a name never leads to content that is not there yet. What no file of the copy uses
/// is left as it is on the medium.
/// @param name  of the volume, for people.
Refusal writeJournal(const OpenVolume& medium, const OpenVolume& copy, const std::string& device,
                     const DeviceIdentity& identity, const std::string& name, std::unique_ptr<Journal>& journal);

}  // namespace vorlix
