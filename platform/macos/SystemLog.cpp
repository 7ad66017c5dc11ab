// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <asl.h>

namespace vorlix {

void MacSystemLog::warn(const std::string& text) {
  // Readers look for these messages in this log. The newer log has other levels and hides texts by default.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  asl_log(nullptr, nullptr, ASL_LEVEL_WARNING, kSystemLogFormat, text.c_str());
#pragma clang diagnostic pop
}

}  // namespace vorlix
