// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

namespace vorlix {

/// Disks as the system's Disk Arbitration knows them, and disk-image files, which it does not know.
class MacDiskArbitration final : public DiskArbitration {
 public:
  std::shared_ptr<DiskArbitrationSession> createSession() override;
};

}  // namespace vorlix
