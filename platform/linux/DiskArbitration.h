// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

namespace vorlix {

/// The disks are the kernel's block devices and disk-image files. Sessions are scheduled on run loops of LinuxRunLoops.
/// Requests are carried out on the calling thread while its loop runs.
class LinuxDiskArbitration final : public DiskArbitration {
 public:
  std::shared_ptr<DiskArbitrationSession> createSession() override;
};

}  // namespace vorlix
