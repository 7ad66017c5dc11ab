// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <syslog.h>

namespace vorlix {

void LinuxSystemLog::warn(const std::string& text) {
  syslog(LOG_WARNING, kSystemLogFormat, text.c_str());
}

}  // namespace vorlix
