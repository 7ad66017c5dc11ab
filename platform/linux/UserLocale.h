// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/UserLocale.h>

namespace vorlix {

class LinuxUserLocale final : public UserLocale {
 public:
  std::string decimalSeparator() override;
};

}  // namespace vorlix
