// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/WimApplying.h>

namespace vorlix {

/// Makes the volume with mkntfs, and applies with libwim (applying/).
class LinuxWimApplying final : public WimApplying {
 public:
  AppliedWim apply(const WimApplication& application, const WimObserver& observer) override;
};

}  // namespace vorlix
