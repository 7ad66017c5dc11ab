// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/foundation/Value.h>

#include "BlockDevices.h"

namespace vorlix {

/// What is known now of a device that is there: from sysfs, from libblkid where the user may read the device, and from
/// the mount table. Kinds of mounted volumes that cannot be read come from the mount table, too.
Dictionary describeDisk(const DeviceLocation& location);

}  // namespace vorlix
