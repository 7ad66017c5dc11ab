// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DeviceStreams.h>

namespace vorlix {

/// Streams made with fopencookie().
class LinuxDeviceStreams final : public DeviceStreams {
 public:
  FILE* streamOver(std::unique_ptr<DeviceHandle> device) override;
};

}  // namespace vorlix
