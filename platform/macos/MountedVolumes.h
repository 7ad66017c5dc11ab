// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/MountedVolumes.h>

namespace vorlix {

/// The system's list of mounted file systems, in its order. It includes those without a device, such as network shares;
/// disk arbitration does not know their names.
///
/// The names and sizes of local volumes are read from the volumes. The sizes of others are those of the list, because a
/// server might not answer.
class MacMountedVolumes final : public MountedVolumes {
 public:
  std::vector<MountedVolume> volumes() override;
};

}  // namespace vorlix
