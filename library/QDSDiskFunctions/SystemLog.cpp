// SPDX-License-Identifier: Apache-2.0
#include "SystemLog.h"

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemLog.h>

namespace vorlix {

void logToSystem(const std::string& text) {
  std::string marked;
  for (const char c : text) {
    marked += c;
    if (c == '\n') marked += "Vorlix";
  }
  platform().systemLog->warn(marked);
}

}  // namespace vorlix
