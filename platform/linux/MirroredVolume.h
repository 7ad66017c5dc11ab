// SPDX-License-Identifier: Apache-2.0
//
// FAT volumes that the kernel cannot mount, or that the user may not have mounted: their files are copied into a
// private folder, the mirror, which is the mount point until what was changed in it is written back (WriteBack.h).
//
// Of a file the mirror holds the content and the time of modification. Attributes (read-only, hidden, system) stay on
// the volume and are kept when the file is written back; modes, owners and times of folders in the mirror are not
// written back.
#pragma once

#include <cstdint>
#include <string>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Makes a mirror of the FAT volume in the window of `device` in a new folder called `name`.
Refusal mountMirror(const DeviceLocation& location, const OpenedDevice& device, const std::string& name, bool readOnly);

/// Writes the changes in a mirror back to its volume and removes the mirror.
///
/// It stays where a request is refused: with kDissentBusy when a file in it is open or the device is locked, with
/// kDissentError when someone else has changed the volume since. A volume whose mirror has no changes is not opened for
/// writing at all.
Refusal unmountMirror(const DeviceLocation& location, const std::string& key, uint64_t identity);

/// Removes a mirror with all that was changed in it. Refused with kDissentBusy when a file in it is open.
Refusal discardMirror(const std::string& key, uint64_t identity);

}  // namespace vorlix
