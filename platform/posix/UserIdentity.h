// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/UserIdentity.h>

namespace vorlix {

class PosixUserIdentity final : public UserIdentity {
 public:
  uint32_t realUserID() override;
};

}  // namespace vorlix
