// SPDX-License-Identifier: Apache-2.0
//
// The log that syslog(3) writes to.
#pragma once

#include <Vorlix/platform/SystemLog.h>

namespace vorlix {

class LinuxSystemLog : public SystemLog {
 public:
  void warn(const std::string& text) override;
};

}  // namespace vorlix
