// SPDX-License-Identifier: Apache-2.0
//
// The Apple System Log.
#pragma once

#include <Vorlix/platform/SystemLog.h>

namespace vorlix {

class MacSystemLog : public SystemLog {
 public:
  void warn(const std::string& text) override;
};

}  // namespace vorlix
