// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <asl.h>

namespace vorlix {

void MacSystemLog::warn(const std::string& text) {
  // Readers of that log expect it there; the newer log has other levels and shows texts only as it is told to.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  asl_log(nullptr, nullptr, ASL_LEVEL_WARNING, kSystemLogFormat, text.c_str());
#pragma clang diagnostic pop
}

}  // namespace vorlix
