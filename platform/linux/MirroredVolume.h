// SPDX-License-Identifier: Apache-2.0
//
// FAT volumes that the kernel cannot mount or the user may not mount. Their files are copied to a private folder, the
// mirror, which is the mount point until its changes are written back (WriteBack.h).
//
// The mirror has the content and the modification times of the files. Attributes (read-only, hidden, system) stay on
// the volume and are kept when a file is written back. Modes, owners and the times of folders are not written back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Makes a mirror of the FAT volume in the window of `device` in a new folder called `name`.
Refusal mountMirror(const DeviceLocation& location, const OpenedDevice& device, const std::string& name, bool readOnly);

/// Writes the changes in a mirror back to its volume and removes the mirror.
///
/// Refused with kDissentBusy if a file of the mirror is open or the device is locked, and with kDissentError if another
/// program has changed the volume; the mirror stays then. A volume whose mirror has no changes is not opened for
/// writing.
Refusal unmountMirror(const DeviceLocation& location, const std::string& key, uint64_t identity);

/// Lets unmountMirror() in this process remove all files of the volume whose mirror is `folder`, if it has no others
/// than `files`.
void allowEmptyMirror(const std::string& folder, const std::vector<std::string>& files);

/// Removes a mirror with all changes in it. Refused with kDissentBusy if a file of the mirror is open.
Refusal discardMirror(const std::string& key, uint64_t identity);

}  // namespace vorlix
