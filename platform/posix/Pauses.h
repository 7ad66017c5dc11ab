// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Pauses.h>

namespace vorlix {

class PosixPauses final : public Pauses {
 public:
  void pause(std::chrono::milliseconds time) override;
};

}  // namespace vorlix
