// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/MountedVolumes.h>

namespace vorlix {

/// The system's list of mounted file systems, in its order. Those without a device of their own, such as network
/// shares, are in it; disk arbitration does not know their names.
///
/// Local volumes are asked for their names and sizes. Others are not, since a server that does not answer would cost
/// time: their sizes are those that the system has at hand.
class MacMountedVolumes final : public MountedVolumes {
 public:
  std::vector<MountedVolume> volumes() override;
};

}  // namespace vorlix
